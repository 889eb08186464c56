// Reading a text file line by line, for the catalogue and property loaders.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "rs_internal.h"

namespace lum_rs {

int32_t for_each_line(const char *path,
                      const std::function<void(std::string_view line, uint32_t number)> &visit) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path, "re"), &std::fclose);
    if (!file)
        return errno;
    std::unique_ptr<char, void (*)(void *)> buffer(nullptr, &std::free);
    size_t capacity = 0;
    uint32_t number = 0;
    for (;;) {
        char *line = buffer.release();
        const ssize_t length = getline(&line, &capacity, file.get());
        buffer.reset(line);
        if (length < 0)
            break;
        std::string_view text(line, static_cast<size_t>(length));
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.remove_suffix(1);
        visit(text, ++number);
    }
    return std::ferror(file.get()) ? EIO : 0;
}

} // namespace lum_rs
