// Plain string helpers: trimming, truncating copies, and LumConstructPath.
#include <cstdarg>
#include <cstring>

#include "rs_internal.h"

namespace lum_rs {

std::string_view trim_blanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

void copy_truncated(char *buffer, size_t size, std::string_view text) {
    size_t length = text.size();
    if (length >= size) {
        length = size - 1;
        // Back off to the lead byte of the character that does not fit whole.
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
            --length;
    }
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

} // namespace lum_rs

extern "C" LUM_RS_API int32_t LumConstructPath(char *buffer, size_t size, ...) {
    if (!buffer || size == 0)
        return buffer ? ENAMETOOLONG : EINVAL;
    va_list parts;
    va_start(parts, size);
    size_t length = 0;
    int32_t rc = 0;
    while (const char *part = va_arg(parts, const char *)) {
        const size_t part_length = std::strlen(part);
        if (part_length >= size - length) {
            rc = ENAMETOOLONG;
            break;
        }
        std::memcpy(buffer + length, part, part_length);
        length += part_length;
    }
    va_end(parts);
    buffer[rc ? 0 : length] = '\0';
    return rc;
}
