// LumEnvExpandString: references to environment variables in a text.
//
//   $NAME, ${NAME}   the variable's value; nothing when it is unset.
//                    NAME is [A-Za-z_][A-Za-z0-9_]*.
//   $$               a single '$'.
//   $ before anything else stays as it is.
//   ${ not followed by a NAME and '}' is an error (EINVAL).
#include <cstdlib>
#include <cstring>
#include <string>

#include "rs_internal.h"

namespace {

bool starts_name(char c) {
    return c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
bool continues_name(char c) {
    return starts_name(c) || (c >= '0' && c <= '9');
}

// The name at the start of `text`; empty when there is none.
std::string_view leading_name(std::string_view text) {
    if (text.empty() || !starts_name(text[0]))
        return {};
    size_t length = 1;
    while (length < text.size() && continues_name(text[length]))
        ++length;
    return text.substr(0, length);
}

void append_variable(std::string &out, std::string_view name) {
    if (const char *value = std::getenv(std::string(name).c_str()))
        out += value;
}

// Expands the reference after a '$' at the start of `rest` (which excludes
// the '$'); returns the number of bytes of `rest` consumed, or -1 for a
// malformed "${".
long expand_reference(std::string &out, std::string_view rest) {
    if (!rest.empty() && rest[0] == '$') {
        out += '$';
        return 1;
    }
    if (!rest.empty() && rest[0] == '{') {
        const std::string_view name = leading_name(rest.substr(1));
        if (name.empty() || rest.size() <= name.size() + 1 || rest[name.size() + 1] != '}')
            return -1;
        append_variable(out, name);
        return static_cast<long>(name.size()) + 2;
    }
    const std::string_view name = leading_name(rest);
    if (name.empty())
        out += '$';
    else
        append_variable(out, name);
    return static_cast<long>(name.size());
}

int32_t expand(std::string_view text, std::string &out) {
    size_t at = 0;
    while (at < text.size()) {
        const size_t dollar = text.find('$', at);
        out.append(text.substr(at, dollar - at));
        if (dollar == std::string_view::npos)
            break;
        const long used = expand_reference(out, text.substr(dollar + 1));
        if (used < 0)
            return EINVAL;
        at = dollar + 1 + static_cast<size_t>(used);
    }
    return 0;
}

} // namespace

extern "C" LUM_RS_API int32_t LumEnvExpandString(const char *text, char **expanded) {
    if (!expanded)
        return EINVAL;
    *expanded = nullptr;
    if (!text)
        return EINVAL;
    return lum_rs::guarded([&] {
        std::string out;
        if (const int32_t rc = expand(text, out))
            return rc;
        auto *copy = static_cast<char *>(lum_malloc(out.size() + 1));
        if (!copy)
            return ENOMEM;
        std::memcpy(copy, out.c_str(), out.size() + 1);
        *expanded = copy;
        return 0;
    });
}
