/*
 * lumregion.hpp - liblumregion for C++ hosts, header-only over lumregion.h.
 *
 * Owners end what they hold: lum::properties the host's property and
 * argument managers, lum::library the start-up (shut down on destruction),
 * lum::region a region (closed on destruction: a persistent one leaves its
 * snapshot), lum::segment a segment handle, and the scans their cursors.
 * Declare segments and tables after their region, so they end before it.
 *
 * Errors: every call that can fail comes twice. The plain one throws
 * lum::error, a std::system_error whose code() is the library's result code
 * in lum::category() and whose what() names the operation; its twin takes a
 * std::error_code& last, is noexcept and leaves the code there (clear on
 * success). Positive codes are errno values and compare equal to std::errc.
 * A container operation that fails reports its reason in the log and
 * gives -19 (12 for a cursor that gets no memory).
 *
 * Changing the image: lum::log_store(segment, &object->field, value) stores
 * and logs with the operation that fits the field's type, and refuses at
 * compile time what the image cannot hold (addresses, types that are not
 * trivially copyable). References inside the image are lum::offset_ptr<T>,
 * 32-bit offsets from the region's base. segment::make, hash_table::insert
 * and list::push_back write a new object whole and log it.
 *
 * Objects in the image are trivially copyable, aligned to at most 8 bytes.
 * The thread rules of lumregion.h hold unchanged.
 */
#ifndef LUMREGION_HPP
#define LUMREGION_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <ranges>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

#include "lumregion.h"

namespace lum {

/* ---------------------------------------------------------------------- */
/* Errors                                                                 */
/* ---------------------------------------------------------------------- */

/** The library's result codes: the texts it registers (LumRCToString), the
 *  errno texts for positive codes, and texts of this header for the few
 *  codes the library registers none for. */
class error_category final : public std::error_category {
  public:
    const char *name() const noexcept override { return "lumregion"; }

    std::string message(int code) const override {
        if (code > 0)
            return std::generic_category().message(code);
        const std::string_view text = LumRCToString(code);
        if (!text.starts_with("Unknown error"))
            return std::string(text);
        switch (code) {
        case LUM_RC_OK:
            return "Success";
        case LUM_RC_FAILURE:
            return "General failure or bad argument";
        case LUM_RC_BAD_SEGMENT_ID:
            return "No segment with this id";
        case LUM_RC_FILE_CREATE:
            return "A working file of the region cannot be created";
        case LUM_RC_FENCE_FREE:
            return "A fence chunk is marked free";
        default:
            return std::string(text);
        }
    }

    std::error_condition default_error_condition(int code) const noexcept override {
        return code > 0 ? std::error_condition(code, std::generic_category())
                        : std::error_condition(code, *this);
    }
};

inline const std::error_category &category() noexcept {
    static const error_category instance;
    return instance;
}

inline std::error_code make_error_code(std::int32_t code) noexcept {
    return {code, category()};
}

/** A failed call: code() holds the result code, what() the operation. */
class error : public std::system_error {
  public:
    using std::system_error::system_error;
    std::int32_t result() const noexcept { return code().value(); }
};

namespace detail {

/** Keeps @p code in @p ec; true for success. */
inline bool keep(std::error_code &ec, std::int32_t code) noexcept {
    ec = make_error_code(code);
    return code == 0;
}

inline void raise_if(const std::error_code &ec, const char *operation) {
    if (ec)
        throw error(ec, operation);
}

/** Runs the error_code twin @p call and throws what it left. */
template <class Call> decltype(auto) or_throw(const char *operation, Call &&call) {
    std::error_code ec;
    if constexpr (std::is_void_v<decltype(call(ec))>) {
        call(ec);
        raise_if(ec, operation);
    } else {
        decltype(auto) result = call(ec);
        raise_if(ec, operation);
        return result;
    }
}

/** Ends a handle with the library's release function. */
template <auto Release> struct releaser {
    template <class Handle> void operator()(Handle *handle) const noexcept { Release(handle); }
};
template <class Handle, auto Release> using owner = std::unique_ptr<Handle, releaser<Release>>;

template <class T> constexpr void check_storable() {
    static_assert(std::is_trivially_copyable_v<T>,
                  "the image holds only trivially copyable objects: they are copied as bytes");
    static_assert(!std::is_pointer_v<T> && !std::is_member_pointer_v<T>,
                  "an address does not survive a restart: store a lum::offset_ptr");
    static_assert(alignof(T) <= 8, "the library aligns objects in the image to 8 bytes");
}

} // namespace detail

/* ---------------------------------------------------------------------- */
/* Start-up                                                               */
/* ---------------------------------------------------------------------- */

/** A property manager and an argument manager, with the library's
 *  properties and options defined in them. */
class properties {
  public:
    properties() {
        detail::or_throw("lum::properties", [this](std::error_code &ec) { define(ec); });
    }
    explicit properties(std::error_code &ec) noexcept { define(ec); }

    /** Applies the library's options (and the host's) among argv[1..] and
     *  removes them from argv. */
    void parse(int &argc, char **argv) {
        detail::or_throw("LumArgMgrParse", [&](std::error_code &ec) { parse(argc, argv, ec); });
    }
    void parse(int &argc, char **argv, std::error_code &ec) noexcept {
        detail::keep(ec, LumArgMgrParse(arguments_.get(), &argc, argv));
    }

    /** Sets @p name from its text, as a "name=value" line does. */
    void set(const char *name, const char *text) {
        detail::or_throw("LumPropMgrSetText", [&](std::error_code &ec) { set(name, text, ec); });
    }
    void set(const char *name, const char *text, std::error_code &ec) noexcept {
        detail::keep(ec, LumPropMgrSetText(properties_.get(), name, text));
    }

    LumPropMgr *get() const noexcept { return properties_.get(); }
    LumArgMgr *arguments() const noexcept { return arguments_.get(); }

  private:
    void define(std::error_code &ec) noexcept {
        LumPropMgr *made = nullptr;
        LumArgMgr *parser = nullptr;
        if (!detail::keep(ec, LumPropMgrCreate(&made)))
            return;
        properties_.reset(made);
        if (!detail::keep(ec, LumArgMgrCreate(made, &parser)))
            return;
        arguments_.reset(parser);
        if (detail::keep(ec, LumRegionPropMgrInitialise(made)))
            detail::keep(ec, LumRegionArgMgrInitialise(parser));
    }

    detail::owner<LumPropMgr, LumPropMgrDestroy> properties_;
    detail::owner<LumArgMgr, LumArgMgrDestroy> arguments_;
};

/** The library, started for the life of the object. It starts once per
 *  process: a second start does nothing, and after the shut-down no region
 *  can be made. @p config is read once, here, and may end afterwards. */
class library {
  public:
    explicit library(const char *home, const properties *config = nullptr) {
        detail::or_throw("LumRegionStartup", [&](std::error_code &ec) { start(home, config, ec); });
    }
    library(const char *home, const properties *config, std::error_code &ec) noexcept {
        start(home, config, ec);
    }
    ~library() {
        if (started_)
            LumRegionShutdown();
    }
    library(const library &) = delete;
    library &operator=(const library &) = delete;

  private:
    void start(const char *home, const properties *config, std::error_code &ec) noexcept {
        started_ = detail::keep(ec, LumRegionStartup(config ? config->get() : nullptr, home));
    }

    bool started_ = false;
};

/* ---------------------------------------------------------------------- */
/* References in the image                                                */
/* ---------------------------------------------------------------------- */

/** A reference to a T in the image, stored as its offset from the image's
 *  base (0: none), so that it stays good at any base in any run. */
template <class T> class offset_ptr {
  public:
    offset_ptr() noexcept = default;
    offset_ptr(const void *base, const T *object) noexcept
        : offset_(object ? static_cast<std::uint32_t>(reinterpret_cast<const char *>(object) -
                                                      static_cast<const char *>(base))
                         : 0) {}

    /** The object, resolved against the image's @p base; null for none. */
    T *get(void *base) const noexcept {
        return offset_ ? reinterpret_cast<T *>(static_cast<char *>(base) + offset_) : nullptr;
    }

    std::uint32_t offset() const noexcept { return offset_; }
    explicit operator bool() const noexcept { return offset_ != 0; }
    bool operator==(const offset_ptr &) const noexcept = default;

  private:
    std::uint32_t offset_ = 0;
};

namespace detail {
template <class T> inline constexpr bool is_offset_ptr = false;
template <class T> inline constexpr bool is_offset_ptr<offset_ptr<T>> = true;
} // namespace detail

/* ---------------------------------------------------------------------- */
/* Logged writes                                                          */
/* ---------------------------------------------------------------------- */

namespace detail {

template <class Integer> void log_integer(LumSegment *segment, void *field, Integer value) {
    constexpr bool is_signed = std::is_signed_v<Integer>;
    if constexpr (sizeof value == 2 && is_signed)
        LumMemLogCpyShort(segment, field, value);
    else if constexpr (sizeof value == 2)
        LumMemLogCpyUShort(segment, field, value);
    else if constexpr (sizeof value == 4 && is_signed)
        LumMemLogCpyInt(segment, field, value);
    else if constexpr (sizeof value == 4)
        LumMemLogCpyUnsigned(segment, field, value);
    else if constexpr (sizeof value == 8 && is_signed)
        LumMemLogCpyInt64(segment, field, value);
    else if constexpr (sizeof value == 8)
        LumMemLogCpyUnsigned64(segment, field, value);
    else
        LumMemLogCpy(segment, field, &value, sizeof value);
}

} // namespace detail

/** Stores @p value in @p field, an object in the image of @p segment's
 *  region, and logs it: integers, enums and offset_ptrs through the typed
 *  operations (nothing is logged when the value is there already), all else
 *  as bytes through LumMemLogCpy. Floating point goes as bytes too, as the
 *  typed operation for doubles skips NaN and a -0.0 over +0.0. A field
 *  outside the image is refused and reported in the log (lumregion.h). */
template <class T>
void log_store(LumSegment *segment, T *field, const std::type_identity_t<T> &value) {
    static_assert(!std::is_const_v<T>, "log_store needs a field it may change");
    detail::check_storable<T>();
    if constexpr (detail::is_offset_ptr<T>)
        LumMemLogCpyUnsigned(segment, field, value.offset());
    else if constexpr (std::is_enum_v<T>)
        detail::log_integer(segment, field, static_cast<std::underlying_type_t<T>>(value));
    else if constexpr (std::is_integral_v<T>)
        detail::log_integer(segment, field, value);
    else
        LumMemLogCpy(segment, field, &value, sizeof value);
}

/* ---------------------------------------------------------------------- */
/* Regions                                                                */
/* ---------------------------------------------------------------------- */

enum class region_type : std::int32_t {
    persistent = LUM_REGION_PERSISTENT,
    volatile_ = LUM_REGION_VOLATILE,
    scratch = LUM_REGION_SCRATCH,
};

/** The sizes of LumRegionCreate and LumRegionOpen. */
struct region_limits {
    std::uint32_t hard_limit = 64u << 20;
    std::uint32_t soft_limit = 64u << 20;
    std::uint32_t largest_record = 4096; /**< the largest allocation logged whole */
    bool protect = false;
};

/** An open region; closed (LumRegionClose) when the object ends. */
class region {
  public:
    region() noexcept = default;

    /** LumRegionCreate: @p directory ends in '/' (persistent regions). */
    static region create(const char *name, region_type type, const char *directory,
                         const region_limits &limits = {}) {
        return detail::or_throw("LumRegionCreate", [&](std::error_code &ec) {
            return create(name, type, directory, limits, ec);
        });
    }
    static region create(const char *name, region_type type, const char *directory,
                         const region_limits &limits, std::error_code &ec) noexcept {
        region made;
        LumRegion *handle = nullptr;
        detail::keep(ec, LumRegionCreate(name, static_cast<std::int32_t>(type), limits.hard_limit,
                                         limits.soft_limit, limits.largest_record, limits.protect,
                                         directory, &handle, &made.base_));
        made.handle_.reset(handle);
        return made;
    }

    /** LumRegionOpen. A region that comes back but fails verification is
     *  open in the twin, with the code in @p ec, for the host to decide;
     *  the throwing call closes it before it throws. */
    static region open(const char *name, const char *directory, const region_limits &limits = {}) {
        return detail::or_throw("LumRegionOpen", [&](std::error_code &ec) {
            return open(name, directory, limits, ec);
        });
    }
    static region open(const char *name, const char *directory, const region_limits &limits,
                       std::error_code &ec) noexcept {
        region made;
        LumRegion *handle = nullptr;
        detail::keep(ec, LumRegionOpen(name, limits.hard_limit, limits.soft_limit,
                                       limits.largest_record, limits.protect, directory, &handle,
                                       &made.base_));
        made.handle_.reset(handle);
        return made;
    }

    /** LumRegionClose now, for its result: the handle ends either way. */
    void close() {
        detail::or_throw("LumRegionClose", [this](std::error_code &ec) { close(ec); });
    }
    void close(std::error_code &ec) noexcept {
        detail::keep(ec, LumRegionClose(handle_.release()));
    }

    /** LumRegionDrop: deletes the files; refused (-413) while segments remain. */
    void drop() {
        detail::or_throw("LumRegionDrop", [this](std::error_code &ec) { drop(ec); });
    }
    void drop(std::error_code &ec) noexcept {
        if (detail::keep(ec, LumRegionDrop(handle_.get())))
            handle_.release();
    }

    void commit() {
        detail::or_throw("LumRegionCommit", [this](std::error_code &ec) { commit(ec); });
    }
    void commit(std::error_code &ec) noexcept { detail::keep(ec, LumRegionCommit(handle_.get())); }

    void checkpoint() {
        detail::or_throw("LumRegionCheckpoint", [this](std::error_code &ec) { checkpoint(ec); });
    }
    void checkpoint(std::error_code &ec) noexcept {
        detail::keep(ec, LumRegionCheckpoint(handle_.get()));
    }

    /** LumRegionVerify: throws, or keeps, the code of the first damage. */
    void verify() const {
        detail::or_throw("LumRegionVerify", [this](std::error_code &ec) { verify(ec); });
    }
    void verify(std::error_code &ec) const noexcept {
        detail::keep(ec, LumRegionVerify(handle_.get()));
    }

    LumRegionInfo info() const noexcept {
        LumRegionInfo filled{};
        LumRegionGetInfo(handle_.get(), &filled);
        return filled;
    }
    std::uint32_t used_bytes() const noexcept { return LumRegionGetUsedBytes(handle_.get()); }
    void *base() const noexcept { return base_; }
    LumRegion *get() const noexcept { return handle_.get(); }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

  private:
    detail::owner<LumRegion, LumRegionClose> handle_;
    void *base_ = nullptr;
};

/* ---------------------------------------------------------------------- */
/* Cursors                                                                */
/* ---------------------------------------------------------------------- */

/** An input range over a library cursor that it owns: @p Next gives the
 *  next object or null at the end, @p Release ends the cursor. Iterators
 *  dereference to Value& (to void* for a range of untyped chunks). */
template <class Cursor, auto Next, auto Release, class Value> class cursor_range {
  public:
    using reference = typename std::conditional_t<std::is_void_v<Value>, std::type_identity<void *>,
                                                  std::add_lvalue_reference<Value>>::type;

    class iterator {
      public:
        using value_type = std::remove_reference_t<reference>;
        using difference_type = std::ptrdiff_t;
        using iterator_concept = std::input_iterator_tag;

        iterator() noexcept = default;
        reference operator*() const noexcept {
            if constexpr (std::is_void_v<Value>)
                return current_;
            else
                return *current_;
        }
        iterator &operator++() noexcept {
            current_ = static_cast<Value *>(Next(cursor_));
            return *this;
        }
        void operator++(int) noexcept { ++*this; }
        bool operator==(std::default_sentinel_t) const noexcept { return current_ == nullptr; }

      private:
        friend cursor_range;
        explicit iterator(Cursor *cursor) noexcept : cursor_(cursor) {
            if (cursor)
                ++*this;
        }
        Cursor *cursor_ = nullptr;
        Value *current_ = nullptr;
    };

    explicit cursor_range(Cursor *cursor) noexcept : cursor_(cursor) {}
    /** Starts the walk; a range is walked once. */
    iterator begin() noexcept { return iterator(cursor_.get()); }
    std::default_sentinel_t end() const noexcept { return {}; }

  private:
    detail::owner<Cursor, Release> cursor_;
};

namespace detail {
inline void *scan_next(LumSegmentScan *scan) noexcept {
    void *chunk = nullptr;
    return LumSegmentScanNext(scan, &chunk) == 0 ? chunk : nullptr;
}
} // namespace detail

/** The live chunks of a segment, as LumSegmentScanNext gives them. */
using chunk_range = cursor_range<LumSegmentScan, detail::scan_next, LumSegmentScanEnd, void>;
static_assert(std::ranges::input_range<chunk_range>);

/* ---------------------------------------------------------------------- */
/* Segments                                                               */
/* ---------------------------------------------------------------------- */

/** The extent sizes of LumSegmentCreate (and of a table's segment). */
struct segment_sizes {
    std::uint32_t primary = 64u << 10;
    std::uint32_t secondary = 64u << 10;
    std::uint32_t growth_percent = 50;
    std::uint32_t maximum = 0; /**< 0: no maximum */
};

/** A segment handle; released (LumSegmentClose) when the object ends, the
 *  segment stays in the image. */
class segment {
  public:
    segment() noexcept = default;

    static segment create(region &owner, const segment_sizes &sizes = {}) {
        return detail::or_throw("LumSegmentCreate",
                                [&](std::error_code &ec) { return create(owner, sizes, ec); });
    }
    static segment create(region &owner, const segment_sizes &sizes, std::error_code &ec) noexcept {
        segment made;
        LumSegment *handle = nullptr;
        detail::keep(ec, LumSegmentCreate(owner.get(), sizes.primary, sizes.secondary,
                                          sizes.growth_percent, sizes.maximum, &handle));
        made.handle_.reset(handle);
        return made;
    }

    static segment open(region &owner, std::uint32_t id) {
        return detail::or_throw("LumSegmentOpen",
                                [&](std::error_code &ec) { return open(owner, id, ec); });
    }
    static segment open(region &owner, std::uint32_t id, std::error_code &ec) noexcept {
        segment made;
        LumSegment *handle = nullptr;
        detail::keep(ec, LumSegmentOpen(owner.get(), id, &handle));
        made.handle_.reset(handle);
        return made;
    }

    /** LumSegmentDrop: the segment goes with all in it, and the handle. */
    void drop() {
        detail::or_throw("LumSegmentDrop", [this](std::error_code &ec) { drop(ec); });
    }
    void drop(std::error_code &ec) noexcept {
        if (detail::keep(ec, LumSegmentDrop(handle_.get())))
            handle_.release();
    }

    /** LumMemAlloc: writable and unlogged until LumMemLog or LumMemNoLog. */
    void *allocate(std::uint32_t size) {
        return detail::or_throw("LumMemAlloc",
                                [&](std::error_code &ec) { return allocate(size, ec); });
    }
    void *allocate(std::uint32_t size, std::error_code &ec) noexcept {
        void *chunk = nullptr;
        detail::keep(ec, LumMemAlloc(handle_.get(), size, &chunk));
        return chunk;
    }

    /** A new T holding @p value, logged whole. */
    template <class T> T *make(const T &value) {
        return detail::or_throw("LumMemAlloc",
                                [&](std::error_code &ec) { return make(value, ec); });
    }
    template <class T> T *make(const T &value, std::error_code &ec) noexcept {
        detail::check_storable<T>();
        void *chunk = allocate(sizeof(T), ec);
        if (chunk == nullptr)
            return nullptr;
        std::memcpy(chunk, &value, sizeof(T));
        LumMemLog(handle_.get(), chunk);
        return static_cast<T *>(chunk);
    }

    /** LumMemFree. */
    void free(void *chunk) {
        detail::or_throw("LumMemFree", [&](std::error_code &ec) { free(chunk, ec); });
    }
    void free(void *chunk, std::error_code &ec) noexcept {
        detail::keep(ec, LumMemFree(handle_.get(), chunk));
    }

    /** The live chunks; the segment must not change during the walk. */
    chunk_range chunks() const {
        return detail::or_throw("LumSegmentScanBegin",
                                [this](std::error_code &ec) { return chunks(ec); });
    }
    chunk_range chunks(std::error_code &ec) const noexcept {
        LumSegmentScan *scan = nullptr;
        detail::keep(ec, LumSegmentScanBegin(handle_.get(), &scan));
        return chunk_range(scan);
    }

    LumSegmentInfo info() const noexcept {
        LumSegmentInfo filled{};
        LumSegmentGetInfo(handle_.get(), &filled);
        return filled;
    }
    std::uint32_t id() const noexcept { return info().segment_id; }
    LumSegment *get() const noexcept { return handle_.get(); }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

  private:
    detail::owner<LumSegment, LumSegmentClose> handle_;
};

template <class T>
void log_store(const segment &owner, T *field, const std::type_identity_t<T> &value) {
    log_store(owner.get(), field, value);
}

/* ---------------------------------------------------------------------- */
/* Persistent hash table                                                  */
/* ---------------------------------------------------------------------- */

/** The hash of a key value that stays the same from run to run, as a
 *  table's chains live on in the image: FNV-1a over text, a multiplicative
 *  mix over integers. */
inline std::uint32_t stable_hash(std::string_view text) noexcept {
    std::uint32_t hash = 2166136261u;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    return hash;
}
template <class Integer>
requires std::is_integral_v<Integer> || std::is_enum_v<Integer> std::uint32_t
stable_hash(Integer value)
noexcept {
    return static_cast<std::uint32_t>((static_cast<std::uint64_t>(value) * 0x9E3779B97F4A7C15u) >>
                                      32);
}

/** A persistent hash table of Items, found by the keys @p Keys: each a
 *  captureless lambda (or other constant function object) that maps a
 *  const Item& to its key value, an integer, an enum or text (anything
 *  that converts to std::string_view). Two items match by a key when the
 *  values are equal. A lookup takes a probe, an Item whose key fields are
 *  set. The handle ends (LumRegHashClose) with the object; the table stays.
 *  Key functions must not throw. */
template <class Item, auto... Keys> class hash_table {
    static_assert(sizeof...(Keys) >= 1, "a table needs at least one key");

  public:
    using item_range =
        cursor_range<LumRegHashCursor, LumRegHashCursorNext, LumRegHashCursorClose, Item>;

    hash_table() noexcept = default;

    /** A new table of @p buckets buckets per key in a new segment of @p owner. */
    static hash_table create(region &owner, std::uint32_t buckets,
                             const segment_sizes &sizes = {}) {
        return detail::or_throw("LumRegHashCreate", [&](std::error_code &ec) {
            return create(owner, buckets, sizes, ec);
        });
    }
    static hash_table create(region &owner, std::uint32_t buckets, const segment_sizes &sizes,
                             std::error_code &ec) noexcept {
        const LumRegHashConfig config{sizes.primary, sizes.secondary, sizes.growth_percent,
                                      sizes.maximum};
        return made(LumRegHashCreate(owner.get(), &config, buckets, kKeys, sizeof...(Keys)), ec);
    }

    /** The table of segment @p segment_id, as created with these keys. */
    static hash_table open(region &owner, std::uint32_t segment_id) {
        return detail::or_throw("LumRegHashOpen",
                                [&](std::error_code &ec) { return open(owner, segment_id, ec); });
    }
    static hash_table open(region &owner, std::uint32_t segment_id, std::error_code &ec) noexcept {
        return made(LumRegHashOpen(owner.get(), segment_id, kKeys, sizeof...(Keys)), ec);
    }

    /** A new item holding @p value, logged whole and inserted. */
    Item *insert(const Item &value) {
        return detail::or_throw("LumRegHashAlloc",
                                [&](std::error_code &ec) { return insert(value, ec); });
    }
    Item *insert(const Item &value, std::error_code &ec) noexcept {
        void *item = LumRegHashAlloc(handle_.get(), sizeof(Item));
        if (!detail::keep(ec, item ? LUM_RC_OK : LUM_RC_FAILURE))
            return nullptr;
        LumMemLogCpy(segment(), item, &value, sizeof(Item));
        LumRegHashInsert(handle_.get(), item);
        return static_cast<Item *>(item);
    }

    /** The oldest item that matches @p probe by key @p key_index; null for
     *  none. next() gives the following matches. */
    Item *find(const Item &probe, std::uint32_t key_index = 0) const noexcept {
        return static_cast<Item *>(LumRegHashFind(handle_.get(), &probe, key_index));
    }
    Item *next(Item *item, std::uint32_t key_index = 0) const noexcept {
        return static_cast<Item *>(LumRegHashNext(handle_.get(), item, key_index));
    }

    /** Takes @p item off its chains and frees it. */
    void erase(Item *item) noexcept {
        LumRegHashDelete(handle_.get(), item);
        LumRegHashFree(handle_.get(), item);
    }

    /** Every item, in bucket order of key 0. */
    item_range items() const {
        return detail::or_throw("LumRegHashCursorOpen",
                                [this](std::error_code &ec) { return items(ec); });
    }
    item_range items(std::error_code &ec) const noexcept {
        LumRegHashCursor *cursor = LumRegHashCursorOpen(handle_.get());
        detail::keep(ec, cursor ? LUM_RC_OK : LUM_RC_NO_MEMORY);
        return item_range(cursor);
    }

    /** LumRegHashDestroy: the table goes with its segment. */
    void destroy() noexcept { LumRegHashDestroy(handle_.release(), nullptr, nullptr); }

    std::uint32_t size() const noexcept { return LumRegHashNumItems(handle_.get()); }
    /** The table's segment, owned by the table: for log_store on items. */
    LumSegment *segment() const noexcept { return LumRegHashSegment(handle_.get()); }
    std::uint32_t segment_id() const noexcept {
        LumSegmentInfo info{};
        LumSegmentGetInfo(segment(), &info);
        return info.segment_id;
    }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

  private:
    template <class Value> static auto comparable(const Value &value) noexcept {
        if constexpr (std::is_convertible_v<const Value &, std::string_view>)
            return std::string_view(value);
        else
            return value;
    }
    template <auto Key> static std::uint32_t hash(LumRegHash *, const void *item, void *) noexcept {
        return stable_hash(comparable(Key(*static_cast<const Item *>(item))));
    }
    template <auto Key>
    static std::int32_t compare(LumRegHash *, const void *probe, const void *item,
                                void *) noexcept {
        return comparable(Key(*static_cast<const Item *>(probe))) !=
               comparable(Key(*static_cast<const Item *>(item)));
    }
    static constexpr LumRegHashKey kKeys[] = {{hash<Keys>, nullptr, compare<Keys>, nullptr}...};

    static hash_table made(LumRegHash *handle, std::error_code &ec) noexcept {
        hash_table table;
        table.handle_.reset(handle);
        detail::keep(ec, handle ? LUM_RC_OK : LUM_RC_FAILURE);
        return table;
    }

    detail::owner<LumRegHash, LumRegHashClose> handle_;
};

/* ---------------------------------------------------------------------- */
/* Persistent list                                                        */
/* ---------------------------------------------------------------------- */

/** A view of a persistent list of Ts in a segment of the host's: it holds
 *  no handle, and any number of views may stand for one list. Keep the
 *  list with header() (an offset_ptr) to find it again in a later run. */
template <class T> class list {
  public:
    /** A forward iterator over the nodes, from first to last. */
    class iterator {
      public:
        using value_type = T;
        using difference_type = std::ptrdiff_t;

        iterator() noexcept = default;
        T &operator*() const noexcept { return *node_; }
        T *operator->() const noexcept { return node_; }
        iterator &operator++() noexcept {
            node_ = static_cast<T *>(LumRegListNext(base_, node_));
            return *this;
        }
        iterator operator++(int) noexcept {
            iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const iterator &other) const noexcept { return node_ == other.node_; }

      private:
        friend list;
        iterator(void *base, T *node) noexcept : base_(base), node_(node) {}
        void *base_ = nullptr;
        T *node_ = nullptr;
    };

    list() noexcept = default;
    /** The list of @p header in the image at @p base; nodes are allocated in
     *  @p segment. */
    list(LumSegment *segment, void *base, LumRegList *header) noexcept
        : segment_(segment), base_(base), header_(header) {}

    /** A new empty list in @p segment. */
    static list create(LumSegment *segment, void *base) {
        return detail::or_throw("LumRegListCreate",
                                [&](std::error_code &ec) { return create(segment, base, ec); });
    }
    static list create(LumSegment *segment, void *base, std::error_code &ec) noexcept {
        LumRegList *made = LumRegListCreate(segment, base);
        detail::keep(ec, made ? LUM_RC_OK : LUM_RC_FAILURE);
        return list(segment, base, made);
    }

    /** A new node holding @p value, logged whole, at the end or the front. */
    T *push_back(const T &value) {
        return detail::or_throw("LumRegListAlloc",
                                [&](std::error_code &ec) { return push_back(value, ec); });
    }
    T *push_back(const T &value, std::error_code &ec) noexcept {
        return link(value, LumRegListInsertBefore, LumRegListTail(base_, header_), ec);
    }
    T *push_front(const T &value) {
        return detail::or_throw("LumRegListAlloc",
                                [&](std::error_code &ec) { return push_front(value, ec); });
    }
    T *push_front(const T &value, std::error_code &ec) noexcept {
        return link(value, LumRegListInsertAfter, LumRegListHead(base_, header_), ec);
    }

    /** Takes @p node off the list and frees it. */
    void erase(T *node) noexcept {
        LumRegListDelete(segment_, base_, header_, node);
        LumRegListFree(segment_, node);
    }

    /** Frees every node and the header; the view ends. */
    void destroy() noexcept {
        LumRegListDestroy(segment_, base_, header_, free_node, nullptr);
        header_ = nullptr;
    }

    iterator begin() const noexcept {
        return iterator(base_, static_cast<T *>(LumRegListFirst(base_, header_)));
    }
    iterator end() const noexcept { return iterator(base_, nullptr); }
    T *front() const noexcept { return static_cast<T *>(LumRegListFirst(base_, header_)); }
    T *back() const noexcept { return static_cast<T *>(LumRegListLast(base_, header_)); }
    std::uint32_t size() const noexcept { return LumRegListNumItems(header_); }
    bool empty() const noexcept { return size() == 0; }
    offset_ptr<LumRegList> header() const noexcept { return {base_, header_}; }
    explicit operator bool() const noexcept { return header_ != nullptr; }

  private:
    using insert_function = void (*)(LumSegment *, void *, LumRegList *, void *, void *);

    T *link(const T &value, insert_function insert, void *position, std::error_code &ec) noexcept {
        detail::check_storable<T>();
        void *node = LumRegListAlloc(segment_, base_, sizeof(T));
        if (!detail::keep(ec, node ? LUM_RC_OK : LUM_RC_FAILURE))
            return nullptr;
        LumMemLogCpy(segment_, node, &value, sizeof(T));
        insert(segment_, base_, header_, node, position);
        return static_cast<T *>(node);
    }
    static std::int32_t free_node(LumSegment *segment, void *node, void *) {
        return LumRegListFree(segment, node);
    }

    LumSegment *segment_ = nullptr;
    void *base_ = nullptr;
    LumRegList *header_ = nullptr;
};

} // namespace lum

#endif /* LUMREGION_HPP */
