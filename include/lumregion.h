/*
 * lumregion.h - recoverable, memory-resident storage for a host process.
 *
 * A host creates named regions. A region is one stretch of address space,
 * reserved once up to a hard limit, that holds a heap image. Everything the
 * image stores refers to other things by byte offsets from the image's base,
 * so the image can be written to disk and brought back at any address.
 *
 * Region types
 *   LUM_REGION_PERSISTENT  the image is backed by files in a directory: every
 *                          change is logged, commits reach a log file, a
 *                          background thread checkpoints dirty pages, and a
 *                          close writes a whole snapshot.
 *   LUM_REGION_VOLATILE,
 *   LUM_REGION_SCRATCH     the image lives in memory only and has no files.
 *                          The two behave alike; the number is kept and
 *                          reported so that a host can tell its kinds apart.
 *
 * Life of the library
 *   1. LumRegionPropMgrInitialise and LumRegionArgMgrInitialise on the host's
 *      property and argument managers (lum_rs.h), then the host loads its
 *      configuration and parses its command line.
 *   2. LumRegionStartup once. A second call, also after LumRegionShutdown,
 *      returns 0 and does nothing: the library starts once per process.
 *   3. Create regions, work with them, close or drop every one of them.
 *   4. LumRegionShutdown once. No region operation is allowed after it.
 *
 * Threads
 *   The host sees to it that one thread at a time changes a region. The
 *   background thread "REGIONCHKPT" visits registered regions on its own.
 *   LumRegionLockForRead, LumRegionLockForWrite and LumRegionUnlock do nothing.
 *
 * Caveats
 *   - Handles are not reference-checked: a handle must not be used after
 *     LumRegionClose or LumRegionDrop.
 *   - Up to 256 regions are registered for the background thread; further
 *     regions work but are never visited by it.
 *
 * Results: int32_t codes, 0 for success. The library's own codes are the
 * LUM_RC_ constants below; besides them stand 12 (no memory, or a mutex that
 * cannot be made) and -19 (general failure or bad argument, also for a null
 * handle or a null out pointer). LumRCToString (lum_rs.h) gives their texts.
 *
 * The header compiles as C99 and as C++.
 */
#ifndef LUMREGION_H
#define LUMREGION_H

#include <stdint.h>

#include "lum_rs.h"

#if defined(LUMREGION_BUILDING)
#define LUMREGION_API __attribute__((visibility("default")))
#else
#define LUMREGION_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Version of the library, as registered with LumVersionInfoRegister. */
#define LUMREGION_VERSION "0.1.0"

/* ---------------------------------------------------------------------- */
/* Result codes                                                           */
/* ---------------------------------------------------------------------- */

#define LUM_RC_OK 0
#define LUM_RC_NO_MEMORY 12            /**< no memory, or a mutex that cannot be made */
#define LUM_RC_FAILURE (-19)           /**< general failure, bad argument */
#define LUM_RC_BAD_SEGMENT_ID (-22)    /**< bad segment index */
#define LUM_RC_FILE_CREATE (-1)        /**< a new region's working file cannot be created */
#define LUM_RC_RESERVE (-401)          /**< "Failed to reserve swap space for region" */
#define LUM_RC_SOFT_LIMIT (-402)       /**< "Region soft limit exceeded" */
#define LUM_RC_EXTEND (-403)           /**< "Failed to extend region" */
#define LUM_RC_SHRINK (-404)           /**< "Failed to shrink region" (never returned) */
#define LUM_RC_ALLOCATOR_TYPE (-405)   /**< "Invalid allocator type requested" */
#define LUM_RC_MAX_SEGMENTS (-406)     /**< "Maximum segments for region reached" */
#define LUM_RC_MAX_SEGMENT_SIZE (-407) /**< "Maximum size of segment reached" */
#define LUM_RC_DOUBLE_FREE (-408)      /**< "Tried to free a free object" */
#define LUM_RC_SOFT_ABOVE_HARD (-409)  /**< "Tried to increase soft limit beyond hard limit" */
#define LUM_RC_SOFT_BELOW_USED                                                                     \
    (-410) /**< "Tried to decrease soft limit to less than current size of region" */
#define LUM_RC_BAD_FILES (-411)        /**< "Invalid data files" */
#define LUM_RC_BAD_PATH (-412)         /**< "Path is invalid" */
#define LUM_RC_SEGMENTS_REMAIN (-413)  /**< "Segment(s) remain in region" */
#define LUM_RC_PRIMARY_SIZE (-499)     /**< "Invalid primary extent size" */
#define LUM_RC_SECONDARY_SIZE (-498)   /**< "Invalid secondary extent size" */
#define LUM_RC_SEGMENT_INDEX (-497)    /**< "Segment map index exceeded" */
#define LUM_RC_SEGMENT_OFFSET (-496)   /**< "Segment map offset invalid" */
#define LUM_RC_SEGMENT_MISMATCH (-495) /**< "Segment map offset/primary extent offset mismatch" */
#define LUM_RC_FREE_EXTENT (-494)      /**< "Free extent" */
#define LUM_RC_EXTENT_KIND (-493)      /**< "Invalid extent kind" */
#define LUM_RC_FENCE_FREE (-492)       /**< a fence chunk marked free; has no registered text */
#define LUM_RC_BAD_CHUNK (-491)        /**< "Invalid chunk" */
#define LUM_RC_EXTENT_STATS (-490)     /**< "Extent statistics mismatch" */

/* ---------------------------------------------------------------------- */
/* Configuration                                                          */
/* ---------------------------------------------------------------------- */

/* Properties, all in the group "Store", and the options that set them:
 *   Region.ProtectAll        "-regionprotectall"          default 0, option sets 1
 *   Region.MutationCheck     "-regionmutationcheck"       default 0, option sets 1
 *   Region.VerifyOnRecovery  "-regionnoverifyonrecovery"  default 1, option sets 0
 * They are read once, by LumRegionStartup. */

/** Defines the library's three properties in @p properties, with their
 *  defaults, in the group "Store".
 *  @return 0, or the first failure of LumPropMgrDefineWithFlags (the
 *  properties before it stay defined); -19 for a null manager. */
LUMREGION_API int32_t LumRegionPropMgrInitialise(LumPropMgr *properties);

/** Defines the library's three command-line options in @p arguments; each
 *  assigns the opposite of its property's default.
 *  @return 0, or the first failure of LumArgMgrDefineWithFlags; -19 for a
 *  null manager. */
LUMREGION_API int32_t LumRegionArgMgrInitialise(LumArgMgr *arguments);

/* ---------------------------------------------------------------------- */
/* Start and stop                                                         */
/* ---------------------------------------------------------------------- */

/** Starts the library: reads the page size and the three properties from
 *  @p properties (a missing property leaves protection off, mutation checks
 *  off and verification on recovery on), registers the result codes, starts
 *  the thread "REGIONCHKPT", and keeps @p home, the data directory, with a
 *  trailing '/'.
 *  Runs once per process: after a success, or after LumRegionShutdown, it
 *  returns 0 and does nothing. A failed start may be retried.
 *  @return 0, or the runtime's code of the failing step (12 when memory, a
 *  mutex, the event or the thread cannot be had); -19 for a null @p home or
 *  one longer than 263 bytes. Logs nothing. */
LUMREGION_API int32_t LumRegionStartup(LumPropMgr *properties, const char *home);

/** Stops the background thread and destroys the registry's mutex. Regions
 *  still open stay in memory with their files untouched; the host should
 *  close them first. @return 0. */
LUMREGION_API int32_t LumRegionShutdown(void);

/* ---------------------------------------------------------------------- */
/* Regions                                                                */
/* ---------------------------------------------------------------------- */

/** Opaque handle of an open region. */
typedef struct LumRegion LumRegion;

#define LUM_REGION_PERSISTENT 1
#define LUM_REGION_VOLATILE 2
#define LUM_REGION_SCRATCH 3

#define LUM_REGION_NAME_MAX 43 /**< bytes of a region name, without the NUL */

/** What LumRegionGetInfo reports. */
typedef struct LumRegionInfo {
    char name[LUM_REGION_NAME_MAX + 1];
    int32_t type;
    uint32_t hard_limit;    /**< bytes reserved, a multiple of 1 MiB */
    uint32_t soft_limit;    /**< the most the image may grow to */
    int32_t protect;        /**< the region's own protection switch */
    int32_t checkpointing;  /**< non-zero: the background thread may visit it */
    void *base;             /**< address of the image */
    uint32_t used;          /**< bytes of the image in use, a page multiple */
    uint32_t segment_count; /**< segments in the image */
} LumRegionInfo;

/** Creates region @p name (at most 43 bytes) of @p type.
 *
 *  @p hard_limit is rounded up to 1 MiB and reserved at once; @p soft_limit,
 *  rounded up to a page, bounds the image's growth and may be raised later
 *  up to the hard limit. @p largest_record sizes the log buffer of a
 *  persistent region. @p protect non-zero keeps the image's pages read-only
 *  between logged writes. @p directory, ending in '/', holds a persistent
 *  region's files; it is ignored for the volatile types.
 *
 *  On success *region is the handle and *base the image's address; on
 *  failure neither is written.
 *  @return 0;
 *    -19  bad argument: null name or out pointer, a name over 43 bytes, a
 *         type other than 1, 2 and 3, a persistent region without directory
 *         or with one beginning with '.', or directory, name and ".tabnew"
 *         longer than 263 bytes together;
 *    12   no memory, or a mutex cannot be made;
 *    -401 the address space cannot be reserved (also for a hard limit of 0);
 *    -402 the soft limit is below the size of the region header;
 *    -403 the first page cannot be committed;
 *    -1   a working file cannot be created. */
LUMREGION_API int32_t LumRegionCreate(const char *name, int32_t type, uint32_t hard_limit,
                                      uint32_t soft_limit, uint32_t largest_record, int32_t protect,
                                      const char *directory, LumRegion **region, void **base);

/** Ends the host's use of @p region, which the host must not change
 *  meanwhile nor use afterwards: the handle is gone when the call returns,
 *  whatever the result. A persistent region is first synced to
 *  "<directory><name>.tab" (written as ".tabnew", forced to disk and renamed
 *  over the old one); when that sync succeeded the four working files are
 *  deleted and the snapshot alone remains. When it failed the failure is
 *  reported in the log and the working files stay, beside the old ".tab"
 *  (or, after a failed rename, the complete ".tabnew" and no ".tab").
 *  @return 0 for a volatile region or a good sync; for a failed sync the
 *  errno of the step that failed (opening, writing, fsync or closing the
 *  new snapshot, or the rename), or -19 when that step left none; -19 for
 *  a null handle. */
LUMREGION_API int32_t LumRegionClose(LumRegion *region);

/** Ends @p region and deletes its files, the ".tab" included. Refused
 *  while segments remain. When the region's last sync (by LumRegionSyncAll)
 *  failed, the working files stay: they may hold the only good copy.
 *  @return 0 (the handle is gone); -413 when segments remain (nothing
 *  changed, the host still owns the handle); -19 for a null handle. */
LUMREGION_API int32_t LumRegionDrop(LumRegion *region);

/** Writes a snapshot of every open persistent region into directory
 *  @p path: "<path>/<name>.tab", written as ".tabnew", forced to disk and
 *  renamed. The regions stay open and their working files untouched.
 *  @p path may end in '/' or not and may hold environment references ($NAME
 *  or ${NAME}); a missing directory is created, one level deep. The path is
 *  checked before anything is created: the data directory given to
 *  LumRegionStartup is refused, compared by name without regard to case,
 *  and so is a directory with which a region's file names would not fit a
 *  path (263 bytes for directory, name and ".tabnew"). Holds the registry
 *  for the whole call, so the background thread waits meanwhile. The host
 *  must not change a region while it syncs. A region whose sync failed keeps
 *  its working files at LumRegionClose or LumRegionDrop until a later sync
 *  of it succeeds. The caller keeps @p path.
 *  @return 0; -412 for the data directory or a path too long; 12; a code of
 *  the path conversion or expansion; the errno of examining or creating the
 *  directory; else the first failure in registry order (an errno value, or
 *  -19), after every region had its attempt; -19 for a null path. */
LUMREGION_API int32_t LumRegionSyncAll(const char *path);

/** Fills @p info from the handle and the image; does nothing when either
 *  pointer is null. Takes no lock. */
LUMREGION_API void LumRegionGetInfo(LumRegion *region, LumRegionInfo *info);

/** Bytes in use in all segments of the region, worked out at each call;
 *  0 for a null handle. */
LUMREGION_API uint32_t LumRegionGetUsedBytes(LumRegion *region);

/** Sets the soft limit to @p limit, unrounded.
 *  @return 0; -409 above the hard limit; -410 below the used size; -19 for
 *  a null handle. Equal to either bound is accepted. */
LUMREGION_API int32_t LumRegionSetSoftLimit(LumRegion *region, uint32_t limit);

/** Allows (@p on non-zero) or forbids the background thread to checkpoint a
 *  persistent region. @return 0; -19 for a volatile region or a null handle. */
LUMREGION_API int32_t LumRegionSetCheckpointing(LumRegion *region, int32_t on);

/** These do nothing: the library has no readers-and-writers lock. The host
 *  orders its own threads. */
LUMREGION_API void LumRegionLockForRead(LumRegion *region);
LUMREGION_API void LumRegionLockForWrite(LumRegion *region);
LUMREGION_API void LumRegionUnlock(LumRegion *region);

/* ---------------------------------------------------------------------- */
/* Segments and allocation                                                */
/* ---------------------------------------------------------------------- */

/** Opaque handle of a segment: the unit in which a host allocates. A handle
 *  is volatile; the segment lives in the image and is found again by its id.
 *  Several handles may stand for one segment; all are void after
 *  LumSegmentDrop or the end of the region. */
typedef struct LumSegment LumSegment;

#define LUM_SEGMENT_MAX 128 /**< segments in one region */

/** What LumSegmentGetInfo reports. */
typedef struct LumSegmentInfo {
    uint32_t segment_id;  /**< the id LumSegmentOpen takes, 0 to 127 */
    uint32_t extents;     /**< the primary extent and the secondary ones */
    uint32_t total_bytes; /**< sum of the extents' sizes */
    uint32_t free_bytes;  /**< free chunks, tags included */
    uint32_t free_chunks;
    uint32_t used_bytes; /**< live chunks, tags included */
    uint32_t used_chunks;
} LumSegmentInfo;

/** Creates a segment of @p region with the lowest free id: a primary
 *  extent of @p primary_size bytes, grown when full by secondary extents,
 *  the first of @p secondary_size bytes and each further one
 *  @p growth_percent larger, until the segment's total reaches
 *  @p maximum_size (0: no maximum). Sizes are rounded up to pages.
 *  @return 0 with *segment set; -406 when 128 segments exist; -405 for a
 *  primary size of 0 or a maximum below primary + secondary size (both
 *  leave *segment untouched); 12 or the region's -402/-403 (with *segment
 *  null); -19 for a null argument. */
LUMREGION_API int32_t LumSegmentCreate(LumRegion *region, uint32_t primary_size,
                                       uint32_t secondary_size, uint32_t growth_percent,
                                       uint32_t maximum_size, LumSegment **segment);

/** Drops the segment with everything in it and releases @p segment.
 *  @return 0; -19 for a null handle. */
LUMREGION_API int32_t LumSegmentDrop(LumSegment *segment);

/** A new handle of the segment with id @p segment_id.
 *  @return 0; -22 for an id that is 128 or more or names no segment (also
 *  when the map's entry names no page of the image); 12;
 *  -19 for a null argument. *segment is untouched on failure. */
LUMREGION_API int32_t LumSegmentOpen(LumRegion *region, uint32_t segment_id, LumSegment **segment);

/** Releases a handle; the segment stays. @return 0. */
LUMREGION_API int32_t LumSegmentClose(LumSegment *segment);

/** Fills @p info from the segment's kept statistics; nothing for null. */
LUMREGION_API void LumSegmentGetInfo(LumSegment *segment, LumSegmentInfo *info);

/** Bytes of the segment's live chunks, tags included; 0 for null. */
LUMREGION_API uint32_t LumSegmentGetUsedBytes(LumSegment *segment);

/** Allocates @p size bytes in @p segment: *pointer is a multiple of 8.
 *  The memory comes back writable and unlogged: fill it with plain stores,
 *  then call LumMemLog (or LumMemNoLog) before the commit that is to keep it.
 *  The chunk is logged whole, so @p size must stay within the region's
 *  largest_record. @return 0; -407 at the segment's maximum; -402 or -403
 *  when the region cannot grow; -19 for a null argument or a size above
 *  4294967224 (*pointer null on failure). */
LUMREGION_API int32_t LumMemAlloc(LumSegment *segment, uint32_t size, void **pointer);

/** Frees an allocation of @p segment, merging it with free neighbours.
 *  @return 0; -19 for a pointer that is not a multiple of 8 or a null
 *  segment; -408 for a chunk that is free already. */
LUMREGION_API int32_t LumMemFree(LumSegment *segment, void *pointer);

/** The bytes usable at @p pointer, at least what was asked; 0 for null. */
LUMREGION_API uint32_t LumMemGetSize(void *pointer);

/** Walks the image of @p region and proves its structure: extents tile the
 *  image in page multiples, every live segment stands in the segment map,
 *  its chunks have sane sizes, and its kept statistics equal the walk's
 *  sums. Reads only the image below its used size, whatever the image
 *  holds, and changes nothing. The region must not change meanwhile.
 *  @return 0, or the code of the first failing test: -497, -496, -495
 *  (segment map), -494, -493, -499, -498 (extents), -492 (a free front
 *  fence), -491 (chunks), -490 (statistics); -19 for a null handle. */
LUMREGION_API int32_t LumRegionVerify(LumRegion *region);

/* ---------------------------------------------------------------------- */
/* Commit, offline and online                                             */
/* ---------------------------------------------------------------------- */

/** Makes the logged changes so far survive the death of the process: one
 *  write of the log buffer to the log file of the current generation. When
 *  a checkpoint has finished, the commit also acknowledges it, and recovery
 *  may then start from that checkpoint. A volatile or offline region writes
 *  nothing.
 *  Not a flush to stable storage: a commit survives the process, not the
 *  machine (LumRegionSyncAll and a close force their snapshots to disk).
 *  Requires the host's one writer of the region: it must not run beside
 *  another write or commit of it.
 *  @return 0, also when the log has failed: a failed log is reported in the
 *  log ("Logging failed"), its changes stay marked for the next checkpoint,
 *  and logging resumes once that checkpoint has moved the generation on;
 *  -19 for a null handle. */
LUMREGION_API int32_t LumRegionCommit(LumRegion *region);

/** Stops logging for @p region: changes are still marked, commits write
 *  nothing, and the background thread leaves the region alone. Waits for a
 *  checkpoint of the region in progress. Nothing for a null handle. */
LUMREGION_API void LumRegionOffline(LumRegion *region);

/** Resumes logging: a persistent region first checkpoints what changed
 *  while it was offline, which the next commit acknowledges. When that
 *  checkpoint cannot run or fails, the log of the current generation is
 *  failed instead, as a failed commit would fail it (see LumRegionCommit).
 *  Nothing for a null handle. */
LUMREGION_API void LumRegionOnline(LumRegion *region);

/** Runs one checkpoint of @p region on the caller's thread, as the
 *  background thread does once a minute: the pages changed since the last
 *  checkpoint of the next generation's parity go to its chk file. The next
 *  LumRegionCommit acknowledges it; until then recovery does not use it.
 *  Waits for a checkpoint of the region in progress on the background
 *  thread.
 *  @return 0; -19 for a null handle, a region that is not persistent or is
 *  offline, a checkpoint that the last commit has not acknowledged yet, or
 *  a write to the chk file that failed (reported in the log). */
LUMREGION_API int32_t LumRegionCheckpoint(LumRegion *region);

/* ---------------------------------------------------------------------- */
/* Logged writes                                                          */
/* ---------------------------------------------------------------------- */

/* Persistent memory is read with plain pointers and changed only through
 * these operations. Each stores at @p target, an address inside the image,
 * behind the region's page protection, appends a redo record of the bytes
 * to the log buffer and marks their pages dirty; the next LumRegionCommit
 * makes the change durable. Targets need no alignment. They require the
 * host's one writer of the region, and a @p segment of that region; the
 * caller keeps every pointer it passes.
 *
 * A target whose bytes do not all lie within the image's used size (below
 * its base, beyond its end, or across either) is refused whole: nothing is
 * read or stored there, nothing is logged or marked, and the refusal is
 * reported in the log (severity 4, set 3, id 14), naming the operation, the
 * address and the region.
 *
 * The typed operations compare first: a value that is already there costs
 * one read and leaves no record. They do nothing for a null segment. */
LUMREGION_API void LumMemLogCpyInt(LumSegment *segment, void *target, int32_t value);
LUMREGION_API void LumMemLogCpyLong(LumSegment *segment, void *target, int32_t value);
LUMREGION_API void LumMemLogCpyUnsigned(LumSegment *segment, void *target, uint32_t value);
LUMREGION_API void LumMemLogCpyBoolean(LumSegment *segment, void *target, int32_t value);
LUMREGION_API void LumMemLogCpyUTC(LumSegment *segment, void *target, int32_t value);
LUMREGION_API void LumMemLogCpyfint_t(LumSegment *segment, void *target, int32_t value);
LUMREGION_API void LumMemLogCpyShort(LumSegment *segment, void *target, int16_t value);
LUMREGION_API void LumMemLogCpyUShort(LumSegment *segment, void *target, uint16_t value);
LUMREGION_API void LumMemLogCpyInt64(LumSegment *segment, void *target, int64_t value);
LUMREGION_API void LumMemLogCpyUnsigned64(LumSegment *segment, void *target, uint64_t value);
/** Stores only when @p value and the double at @p target compare greater or
 *  less: -0.0 does not replace +0.0, and a NaN on either side stores
 *  nothing. */
LUMREGION_API void LumMemLogCpyReal(LumSegment *segment, void *target, double value);

/** Copies @p length bytes from @p source to @p target and logs them, also
 *  when they were equal. The two ranges may overlap: the copy is made as by
 *  memmove, and the record holds the bytes as they end up. A length above
 *  the log buffer's room is logged as several records.
 *  @return @p target (at once for a length of 0, which logs nothing); null
 *  for a null segment or a target outside the image (nothing stored). */
LUMREGION_API void *LumMemLogCpy(LumSegment *segment, void *target, const void *source,
                                 uint32_t length);

/** Sets @p length bytes at @p target to the byte @p value and logs them.
 *  @return as LumMemLogCpy. */
LUMREGION_API void *LumMemLogSet(LumSegment *segment, void *target, int32_t value, uint32_t length);

/** Finishes an allocation whose memory the host filled with plain stores:
 *  protects the chunk again and logs all of it, tags included, in one
 *  record (several when it is larger than the log buffer's room).
 *  @p pointer must be a result of LumMemAlloc in @p segment; a chunk that
 *  does not lie within the image is refused as a target outside it is.
 *  Call exactly one of LumMemLog and LumMemNoLog for each new allocation,
 *  before the commit that is to keep it. Nothing for a null argument. */
LUMREGION_API void LumMemLog(LumSegment *segment, void *pointer);

/** As LumMemLog, without the record: the chunk reaches disk only with its
 *  pages, when some other change marks them or a sync writes the image. */
LUMREGION_API void LumMemNoLog(LumSegment *segment, void *pointer);

#ifdef __cplusplus
}
#endif

#endif /* LUMREGION_H */
