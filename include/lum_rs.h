/*
 * lum_rs.h - the runtime layer under liblumregion.
 *
 * liblum_rs gives liblumregion, and the host that loads it, the services a
 * storage library needs from its surroundings:
 *
 *   - a log with severities, debug switches and a message catalogue,
 *   - texts for result codes,
 *   - typed properties with groups, filled from files and the command line,
 *   - named threads, mutexes and auto-reset events,
 *   - per-thread exceptions that a host can observe,
 *   - path, environment and UTF-8/UTF-16 string helpers,
 *   - a malloc wrapper that a test can make fail on purpose.
 *
 * Conventions: every operation that can fail returns int32_t, 0 for success
 * and a positive errno value otherwise (12, ENOMEM, when memory runs out).
 * Handles are opaque pointers; a null handle means "none". Out arguments come
 * last. All operations may be called from any thread unless stated.
 *
 * The header compiles as C99 and as C++.
 */
#ifndef LUM_RS_H
#define LUM_RS_H

#include <stddef.h>
#include <stdint.h>

#if defined(LUM_RS_BUILDING)
#define LUM_RS_API __attribute__((visibility("default")))
#else
#define LUM_RS_API
#endif

#if defined(__GNUC__)
#define LUM_RS_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define LUM_RS_PRINTF(fmt_index, first_arg)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------- */
/* Memory                                                                 */
/* ---------------------------------------------------------------------- */

/** Allocates @p size bytes; null when there is no memory (or a failure
 *  was scheduled with lum_malloc_fail_at). Free with lum_free. */
LUM_RS_API void *lum_malloc(size_t size);

/** Frees a block of lum_malloc or of a string operation below. Null is ignored. */
LUM_RS_API void lum_free(void *block);

/** Fills @p size bytes at @p block with zero. */
LUM_RS_API void lum_bzero(void *block, size_t size);

/** Sorts @p count elements of @p size bytes; @p compare gets two element
 *  pointers and @p context and returns <0, 0 or >0. */
LUM_RS_API void lum_qsort(void *base, size_t count, size_t size,
                          int (*compare)(const void *, const void *, void *), void *context);

/** Fault injection for tests: the @p n-th call of lum_malloc from now (1 is
 *  the next one) returns null, once. 0 cancels a scheduled failure. */
LUM_RS_API void lum_malloc_fail_at(uint32_t n);

/* ---------------------------------------------------------------------- */
/* Typed values                                                           */
/* ---------------------------------------------------------------------- */

#define LUM_VALUE_INTEGER 3 /**< value.integer holds the value */
#define LUM_VALUE_BOOLEAN 4 /**< value.boolean holds the value */
#define LUM_VALUE_STRING 7  /**< value.string holds text and length */

/** A typed value exchanged with the property and argument managers and with
 *  LumThreadExceptionRaise. */
typedef struct LumValue {
    int32_t type;     /**< LUM_VALUE_INTEGER, LUM_VALUE_BOOLEAN or LUM_VALUE_STRING */
    int32_t reserved; /**< neither set nor read */
    union {
        int32_t integer;
        int32_t boolean;
        struct {
            const char *text; /**< not owned by the record */
            uint32_t length;  /**< bytes of text, without the NUL */
        } string;
    } value;
} LumValue;

/* ---------------------------------------------------------------------- */
/* Locale, message catalogue and log                                      */
/* ---------------------------------------------------------------------- */

typedef struct LumLocale LumLocale;
typedef struct LumCatalog LumCatalog;

/** Makes a locale object; the four words are reserved and must be 0. */
LUM_RS_API int32_t LumI18nLocaleCreate(int32_t r1, int32_t r2, int32_t r3, int32_t r4,
                                       LumLocale **locale);

/** Opens the catalogue @p name: the file "<name>.cat" in the directory named
 *  by LUM_CATALOG_PATH, with lines "set id text". Without such a file the
 *  catalogue is empty and every lookup gives the default text. On ENOMEM
 *  *catalog becomes null, which every operation below accepts. */
LUM_RS_API int32_t LumI18nCatalogOpen(LumLocale *locale, const char *name, LumCatalog **catalog);

/** Copies the text of (@p set, @p id), or @p fallback, into @p buffer of
 *  @p size bytes, truncated and always NUL-terminated. */
LUM_RS_API int32_t LumI18nMessageGet(const LumCatalog *catalog, uint32_t set, uint32_t id,
                                     const char *fallback, char *buffer, uint32_t size);

/** Severities of LumLog. 1 is written only when the switch is non-zero. */
#define LUM_LOG_DEBUG 1
#define LUM_LOG_PROGRESS 2
#define LUM_LOG_FAILURE 4
#define LUM_LOG_ERROR 5

/** Writes one log record: the catalogue's text of (@p set, @p id), or
 *  @p format, formatted with the arguments. Severity 1 is written only when
 *  @p on is non-zero; other severities always. Always returns (0). */
LUM_RS_API int32_t LumLog(int32_t severity, int32_t on, const LumCatalog *catalog, uint32_t set,
                          uint32_t id, const char *format, ...) LUM_RS_PRINTF(6, 7);

/** Receives each log record in place of the default destination. */
typedef void (*LumLogSink)(void *context, int32_t severity, uint32_t set, uint32_t id,
                           const char *text);

/** Installs @p sink (null restores the default: stderr, or the file named by
 *  LUM_LOG_FILE). */
LUM_RS_API void LumLogSetSink(LumLogSink sink, void *context);

/* ---------------------------------------------------------------------- */
/* Result codes                                                           */
/* ---------------------------------------------------------------------- */

/** One row of a table of result codes. */
typedef struct LumRCEntry {
    int32_t code;
    uint32_t set;
    uint32_t id;
    const char *text; /**< default text; the table must outlive the process's use of it */
} LumRCEntry;

/** Makes the @p count codes of @p table known to LumRCToString, with texts
 *  from @p catalog where it has them. */
LUM_RS_API int32_t LumRCRegister(const LumCatalog *catalog, uint32_t count,
                                 const LumRCEntry *table);

/** Text of @p code: the registered text, else "Unknown error <code>". Never
 *  null; valid for the life of the process. */
LUM_RS_API const char *LumRCToString(int32_t code);

/* ---------------------------------------------------------------------- */
/* Properties and command-line options                                    */
/* ---------------------------------------------------------------------- */

typedef struct LumPropMgr LumPropMgr;
typedef struct LumArgMgr LumArgMgr;

/** Makes an empty property manager. */
LUM_RS_API int32_t LumPropMgrCreate(LumPropMgr **manager);
/** Destroys a manager; null is ignored. */
LUM_RS_API void LumPropMgrDestroy(LumPropMgr *manager);

/** Defines property @p name with a copy of @p value as its default.
 *  EEXIST if it is defined already, EINVAL for a bad argument. @p flags are
 *  kept and not interpreted. */
LUM_RS_API int32_t LumPropMgrDefineWithFlags(LumPropMgr *manager, const char *name,
                                             const char *description, const LumValue *value,
                                             uint32_t flags);

/** Puts the property in @p group. ENOENT for an unknown property. */
LUM_RS_API int32_t LumPropMgrSetGroup(LumPropMgr *manager, const char *name, const char *group);

/** Fills @p value with the property's current value. A string's text stays
 *  valid until the property changes or the manager is destroyed. ENOENT for
 *  an unknown property. */
LUM_RS_API int32_t LumPropMgrGetValue(const LumPropMgr *manager, const char *name, LumValue *value);

/** Sets the property to a copy of @p value; its type must match (EINVAL). */
LUM_RS_API int32_t LumPropMgrSetValue(LumPropMgr *manager, const char *name, const LumValue *value);

/** Sets the property from text: booleans accept 1/0, true/false, yes/no,
 *  on/off (any case); integers a decimal number that fits 32 bits, signed.
 *  EINVAL for text that is no value of the type. */
LUM_RS_API int32_t LumPropMgrSetText(LumPropMgr *manager, const char *name, const char *text);

/** Loads a file of "name=value" lines ('#' starts a comment, blanks around
 *  name and value are dropped). Each line goes through LumPropMgrSetText;
 *  the first failure is returned after the whole file was read. */
LUM_RS_API int32_t LumPropMgrLoadFile(LumPropMgr *manager, const char *path);

/** Option kinds. */
#define LUM_OPTION_FLAG 1  /**< an option without argument that assigns its value */
#define LUM_OPTION_VALUE 2 /**< an option whose next argument is the value, as text */

/** Makes an argument manager whose options assign to @p properties. */
LUM_RS_API int32_t LumArgMgrCreate(LumPropMgr *properties, LumArgMgr **manager);
/** Destroys a manager; null is ignored. */
LUM_RS_API void LumArgMgrDestroy(LumArgMgr *manager);

/** Defines @p option (e.g. "-verbose"): giving it assigns a copy of @p value
 *  to @p property (kind LUM_OPTION_FLAG), or the argument behind it, as by
 *  LumPropMgrSetText (kind LUM_OPTION_VALUE; @p value is not used and may
 *  be null). @p flags must be 0. */
LUM_RS_API int32_t LumArgMgrDefineWithFlags(LumArgMgr *manager, const char *option,
                                            const char *property, const char *description,
                                            int32_t kind, const LumValue *value, uint32_t flags);

/** Applies every defined option among argv[1..*argc-1] and removes it, with
 *  the value behind an option of kind LUM_OPTION_VALUE, from argv; the
 *  others stay, in order, and *argc is updated. An option that lacks its
 *  value or cannot assign it stays, and its failure counts (EINVAL for a
 *  missing value). The first failure
 *  to assign a property is returned after all arguments were seen. */
LUM_RS_API int32_t LumArgMgrParse(LumArgMgr *manager, int *argc, char **argv);

/* ---------------------------------------------------------------------- */
/* Version strings and debug facilities                                   */
/* ---------------------------------------------------------------------- */

/** Records a library's version string, "name: 1.2.3". */
LUM_RS_API int32_t LumVersionInfoRegister(const char *version);
/** Takes it out again. ENOENT if it was not registered. */
LUM_RS_API int32_t LumVersionInfoUnregister(const char *version);
/** The registered version string of library @p name, or null. */
LUM_RS_API const char *LumVersionInfoLookup(const char *name);

/** Registers debug facility @p name with the address of its switch word,
 *  kept for the life of the process. The word becomes 1 at once when
 *  LUM_DEBUG (comma-separated names) lists the facility. */
LUM_RS_API int32_t LumDebugFacilityRegister(const char *name, int32_t *word);

/** Switches every facility called @p name on (non-zero) or off. ENOENT if
 *  none is registered under that name. */
LUM_RS_API int32_t LumDebugFacilitySet(const char *name, int32_t on);

/* ---------------------------------------------------------------------- */
/* Mutexes, events, threads                                               */
/* ---------------------------------------------------------------------- */

typedef struct LumMutex LumMutex;
typedef struct LumEvent LumEvent;
typedef struct LumThread LumThread;

/** Creates a non-recursive mutex; names need not be unique. ENOMEM. */
LUM_RS_API int32_t LumMutexCreate(const char *name, LumMutex **mutex);
/** Destroys a mutex, also one that the calling thread holds. Null is ignored. */
LUM_RS_API int32_t LumMutexDestroy(LumMutex *mutex);
LUM_RS_API int32_t LumMutexLock(LumMutex *mutex);
LUM_RS_API int32_t LumMutexUnlock(LumMutex *mutex);

/** Creates an auto-reset event: a signal wakes one waiter, or the next wait
 *  when nobody waits. ENOMEM. */
LUM_RS_API int32_t LumEventCreate(LumEvent **event);
LUM_RS_API int32_t LumEventDestroy(LumEvent *event);
LUM_RS_API int32_t LumEventSignal(LumEvent *event);
/** Waits for a signal at most @p milliseconds: 0 when signalled, ETIMEDOUT. */
LUM_RS_API int32_t LumEventTimedWait(LumEvent *event, uint32_t milliseconds);

/** Entry of a thread: receives a word to hand to LumThreadShouldContinue. */
typedef uintptr_t (*LumThreadEntry)(uintptr_t word);

/** Starts thread @p name (visible in ps and gdb, at most 15 bytes shown).
 *  @p reserved and @p flags must be 0. */
LUM_RS_API int32_t LumThreadSpawn(const char *name, LumThreadEntry entry, uintptr_t reserved,
                                  uint32_t flags, LumThread **thread);

/** Non-zero until LumThreadScheduleStop was called for the thread that
 *  received @p word. */
LUM_RS_API int32_t LumThreadShouldContinue(uintptr_t word);
/** Asks the thread to stop; it sees this at its next LumThreadShouldContinue. */
LUM_RS_API int32_t LumThreadScheduleStop(LumThread *thread);
/** Waits for the thread to end and frees its handle. */
LUM_RS_API int32_t LumThreadJoin(LumThread *thread);
/** The calling thread's id (the kernel's thread id). */
LUM_RS_API uint32_t LumThreadGetID(void);

/* ---------------------------------------------------------------------- */
/* Exceptions                                                             */
/* ---------------------------------------------------------------------- */

/** The exception pending in a thread. */
typedef struct LumException {
    uint32_t thread_id;
    char class_name[32];
    char message[256];
    char value[256]; /**< the text of the raised LumValue, if any */
} LumException;

/** Called in the raising thread; when it returns, so does the raise. */
typedef void (*LumExceptionHandler)(void *context, const LumException *exception);

/** Records exception @p class_name with @p message and @p value (may be null)
 *  as pending in the calling thread, logs it at severity 4 (catalogue text of
 *  (@p set, @p id) when there is one), calls the handler, and returns 0.
 *  @p thread_id is LumThreadGetID() of the caller; @p file, @p line and
 *  @p function may be 0. */
LUM_RS_API int32_t LumThreadExceptionRaise(uint32_t thread_id, const char *class_name,
                                           const LumCatalog *catalog, uint32_t set, uint32_t id,
                                           const char *message, const LumValue *value,
                                           const char *file, uint32_t line, const char *function);

/** Installs the process-wide handler (null removes it). */
LUM_RS_API void LumThreadExceptionSetHandler(LumExceptionHandler handler, void *context);
/** Copies the calling thread's pending exception: 0, or ENOENT when none. */
LUM_RS_API int32_t LumThreadExceptionGet(LumException *exception);
/** Clears the calling thread's pending exception. */
LUM_RS_API void LumThreadExceptionClear(void);

/* ---------------------------------------------------------------------- */
/* Paths and strings                                                      */
/* ---------------------------------------------------------------------- */

/** Joins the strings after @p size up to a null argument into @p buffer.
 *  ENAMETOOLONG (with @p buffer holding an empty string) when they and the
 *  NUL do not fit in @p size bytes. */
LUM_RS_API int32_t LumConstructPath(char *buffer, size_t size, ...);

/** Expands $NAME and ${NAME} in @p text from the environment (unset names
 *  expand to nothing; "$$" is a '$'). *expanded is a new string for
 *  lum_free. EINVAL for an unclosed "${", ENOMEM. */
LUM_RS_API int32_t LumEnvExpandString(const char *text, char **expanded);

/** Converts UTF-8 @p text to a new NUL-terminated UTF-16 string for
 *  lum_free. EILSEQ for invalid UTF-8, ENOMEM. */
LUM_RS_API int32_t LumWStringStrToWStr(const char *text, uint16_t **wide);

/** Converts NUL-terminated UTF-16 @p wide to a new UTF-8 string for lum_free.
 *  EILSEQ for an unpaired surrogate, ENOMEM. */
LUM_RS_API int32_t LumWStringWStrToStr(const uint16_t *wide, char **text);

#ifdef __cplusplus
}
#endif

#endif /* LUM_RS_H */
