// Locales and message catalogues.
//
// A catalogue is the file "<name>.cat" in the directory named by
// LUM_CATALOG_PATH, one message a line: "set id text", the text being the
// rest of the line after the blanks that follow the id. Blank lines, lines
// starting with '#' and lines of any other form are ignored; a later line
// for the same (set, id) replaces an earlier one.
//
// An open catalogue is one immutable block of lum_malloc: the header, the
// entries sorted by (set, id), then their NUL-terminated texts, so lookups
// take no lock and texts stay where they are. There is no close operation:
// catalogues and locales live as long as the process, and stay on a list so
// that leak checkers see them reachable.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "rs_internal.h"

// The locale carries no settings: a catalogue file holds one language.
struct LumLocale {
    LumLocale *next;
};

namespace {

struct CatalogEntry {
    uint32_t set;
    uint32_t id;
    size_t text_offset;
};

} // namespace

struct LumCatalog {
    LumCatalog *next;
    size_t count;

    const CatalogEntry *entries() const { return reinterpret_cast<const CatalogEntry *>(this + 1); }
    const char *texts() const { return reinterpret_cast<const char *>(entries() + count); }
};

namespace {

using MessageKey = std::pair<uint32_t, uint32_t>;
using Messages = std::map<MessageKey, std::string>;

template <class Record> void keep_for_process_life(Record *record) {
    static lum_rs::Lock lock;
    static Record *head = nullptr;
    std::lock_guard guard(lock);
    record->next = head;
    head = record;
}

// Reads a decimal number at the start of `text` and moves past it.
bool take_number(std::string_view &text, uint32_t &value) {
    size_t digits = 0;
    uint64_t number = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        number = number * 10 + static_cast<uint64_t>(text[digits] - '0');
        if (number > UINT32_MAX)
            return false;
        ++digits;
    }
    text.remove_prefix(digits);
    value = static_cast<uint32_t>(number);
    return digits > 0;
}

// Moves past the blanks at the start of `text`; false when there are none.
bool take_blanks(std::string_view &text) {
    const size_t blanks = std::min(text.find_first_not_of(" \t"), text.size());
    text.remove_prefix(blanks);
    return blanks > 0;
}

void parse_message_line(std::string_view line, Messages &messages) {
    take_blanks(line);
    uint32_t set, id;
    if (line.empty() || line[0] == '#' || !take_number(line, set) || !take_blanks(line) ||
        !take_number(line, id) || !take_blanks(line) || line.empty())
        return;
    messages[{set, id}] = std::string(line);
}

// Reads the catalogue file `name` into `messages`: 0 when it was read or
// when there is none, else the errno of reading it.
int32_t read_catalog_file(const char *name, Messages &messages) {
    const char *directory = std::getenv("LUM_CATALOG_PATH");
    if (!directory || !*directory)
        return 0;
    const std::string path = std::string(directory) + "/" + name + ".cat";
    const int32_t rc = lum_rs::for_each_line(
        path.c_str(), [&](std::string_view line, uint32_t) { parse_message_line(line, messages); });
    return rc == ENOENT ? 0 : rc;
}

LumCatalog *build_catalog(const Messages &messages) {
    size_t text_bytes = 0;
    for (const auto &message : messages)
        text_bytes += message.second.size() + 1;
    void *block =
        lum_malloc(sizeof(LumCatalog) + messages.size() * sizeof(CatalogEntry) + text_bytes);
    if (!block)
        return nullptr;
    auto *catalog = new (block) LumCatalog{nullptr, messages.size()};
    auto *entry = const_cast<CatalogEntry *>(catalog->entries());
    auto *texts = const_cast<char *>(catalog->texts());
    size_t offset = 0;
    for (const auto &[key, text] : messages) {
        new (entry++) CatalogEntry{key.first, key.second, offset};
        std::memcpy(texts + offset, text.c_str(), text.size() + 1);
        offset += text.size() + 1;
    }
    return catalog;
}

} // namespace

namespace lum_rs {

const char *catalog_find(const LumCatalog *catalog, uint32_t set, uint32_t id) {
    if (!catalog)
        return nullptr;
    const CatalogEntry *first = catalog->entries();
    const CatalogEntry *last = first + catalog->count;
    const CatalogEntry *found = std::lower_bound(first, last, MessageKey{set, id},
                                                 [](const CatalogEntry &entry, MessageKey key) {
                                                     return MessageKey{entry.set, entry.id} < key;
                                                 });
    if (found == last || found->set != set || found->id != id)
        return nullptr;
    return catalog->texts() + found->text_offset;
}

} // namespace lum_rs

extern "C" {

LUM_RS_API int32_t LumI18nLocaleCreate(int32_t r1, int32_t r2, int32_t r3, int32_t r4,
                                       LumLocale **locale) {
    if (!locale)
        return EINVAL;
    *locale = nullptr;
    if (r1 || r2 || r3 || r4)
        return EINVAL;
    auto *created = static_cast<LumLocale *>(lum_malloc(sizeof(LumLocale)));
    if (!created)
        return ENOMEM;
    keep_for_process_life(created);
    *locale = created;
    return 0;
}

// An unreadable file gives its errno, with an empty catalogue all the same,
// since a missing translation must never stop a caller.
LUM_RS_API int32_t LumI18nCatalogOpen(LumLocale *, const char *name, LumCatalog **catalog) {
    if (!catalog)
        return EINVAL;
    *catalog = nullptr;
    if (!name || !*name)
        return EINVAL;
    return lum_rs::guarded([&] {
        Messages messages;
        const int32_t rc = read_catalog_file(name, messages);
        if (rc)
            messages.clear();
        LumCatalog *opened = build_catalog(messages);
        if (!opened)
            return ENOMEM;
        keep_for_process_life(opened);
        *catalog = opened;
        return rc;
    });
}

LUM_RS_API int32_t LumI18nMessageGet(const LumCatalog *catalog, uint32_t set, uint32_t id,
                                     const char *fallback, char *buffer, uint32_t size) {
    if (!buffer || size == 0)
        return EINVAL;
    const char *text = lum_rs::catalog_find(catalog, set, id);
    lum_rs::copy_truncated(buffer, size, text ? text : fallback ? fallback : "");
    return 0;
}

} // extern "C"
