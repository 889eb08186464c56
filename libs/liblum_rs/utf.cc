// Conversion between UTF-8 and UTF-16 strings, strict in both directions:
// overlong UTF-8 forms, surrogates encoded in UTF-8, code points above
// 0x10FFFF, truncated sequences and unpaired UTF-16 surrogates are EILSEQ.
#include "rs_internal.h"

namespace {

constexpr char32_t kMaxCodePoint = 0x10FFFF;

bool is_high_surrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool is_low_surrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// The UTF-8 forms by sequence length (index + 1): the lead byte's pattern,
// and the smallest code point that needs this length (below it: overlong).
struct Utf8Form {
    unsigned char mask;
    unsigned char marker;
    char32_t smallest;
};
constexpr Utf8Form kUtf8Forms[] = {
    {0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
constexpr size_t kUtf8MaxLength = 4;

// Decodes the UTF-8 sequence at `at` and moves past it; false when it is
// invalid. The terminating NUL fails the continuation test, so a truncated
// sequence is never read past.
bool decode_utf8(const unsigned char *&at, char32_t &code_point) {
    size_t form = 0;
    while (form < kUtf8MaxLength && (at[0] & kUtf8Forms[form].mask) != kUtf8Forms[form].marker)
        ++form;
    if (form == kUtf8MaxLength)
        return false;
    code_point = at[0] & ~kUtf8Forms[form].mask & 0xFF;
    for (size_t i = 1; i <= form; ++i) {
        if ((at[i] & 0xC0) != 0x80)
            return false;
        code_point = (code_point << 6) | (at[i] & 0x3F);
    }
    if (code_point < kUtf8Forms[form].smallest || code_point > kMaxCodePoint ||
        is_high_surrogate(code_point) || is_low_surrogate(code_point))
        return false;
    at += form + 1;
    return true;
}

size_t utf8_length(char32_t code_point) {
    return code_point < 0x80 ? 1 : code_point < 0x800 ? 2 : code_point < 0x10000 ? 3 : 4;
}

char *encode_utf8(char32_t code_point, char *out) {
    const size_t length = utf8_length(code_point);
    for (size_t i = length - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (code_point & 0x3F));
        code_point >>= 6;
    }
    out[0] = static_cast<char>(kUtf8Forms[length - 1].marker | code_point);
    return out + length;
}

// Decodes one UTF-16 unit or surrogate pair at `at` and moves past it;
// false for an unpaired surrogate.
bool decode_utf16(const uint16_t *&at, char32_t &code_point) {
    if (is_low_surrogate(at[0]))
        return false;
    if (!is_high_surrogate(at[0])) {
        code_point = *at++;
        return true;
    }
    if (!is_low_surrogate(at[1]))
        return false;
    code_point = 0x10000 + ((char32_t{at[0]} - 0xD800) << 10) + (char32_t{at[1]} - 0xDC00);
    at += 2;
    return true;
}

size_t utf16_length(char32_t code_point) {
    return code_point < 0x10000 ? 1 : 2;
}

uint16_t *encode_utf16(char32_t code_point, uint16_t *out) {
    if (code_point < 0x10000) {
        *out = static_cast<uint16_t>(code_point);
        return out + 1;
    }
    code_point -= 0x10000;
    out[0] = static_cast<uint16_t>(0xD800 + (code_point >> 10));
    out[1] = static_cast<uint16_t>(0xDC00 + (code_point & 0x3FF));
    return out + 2;
}

// Converts the NUL-terminated `text` into a new string of lum_malloc: a
// first pass validates and measures, a second one writes.
template <class From, class To, bool (*Decode)(const From *&, char32_t &),
          size_t (*Length)(char32_t), To *(*Encode)(char32_t, To *)>
int32_t convert(const From *text, To **converted) {
    if (!converted)
        return EINVAL;
    *converted = nullptr;
    if (!text)
        return EINVAL;
    size_t units = 0;
    char32_t code_point;
    for (const From *at = text; *at;) {
        if (!Decode(at, code_point))
            return EILSEQ;
        units += Length(code_point);
    }
    auto *out = static_cast<To *>(lum_malloc((units + 1) * sizeof(To)));
    if (!out)
        return ENOMEM;
    To *end = out;
    for (const From *at = text; *at;) {
        Decode(at, code_point);
        end = Encode(code_point, end);
    }
    *end = 0;
    *converted = out;
    return 0;
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumWStringStrToWStr(const char *text, uint16_t **wide) {
    return convert<unsigned char, uint16_t, decode_utf8, utf16_length, encode_utf16>(
        reinterpret_cast<const unsigned char *>(text), wide);
}

LUM_RS_API int32_t LumWStringWStrToStr(const uint16_t *wide, char **text) {
    return convert<uint16_t, char, decode_utf16, utf8_length, encode_utf8>(wide, text);
}

} // extern "C"
