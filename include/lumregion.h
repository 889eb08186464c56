/*
 * lumregion.h - recoverable, memory-resident storage for a host process.
 *
 * A host creates named regions. A region is one stretch of address space,
 * reserved once up to a hard limit, that holds a heap image. Everything the
 * image stores refers to other things by byte offsets from the image's base,
 * so the image can be written to disk and brought back at any address. The
 * base never moves while the region is open, so plain pointers into the
 * image stay good until LumRegionClose or LumRegionDrop.
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
 * Files of a persistent region named N in directory D (the path is the plain
 * concatenation D N suffix): the working files D N_0.chk, N_1.chk, N_0.log
 * and N_1.log, made empty by LumRegionCreate, and the snapshot D N.tab,
 * written through D N.tabnew by a close or LumRegionSyncAll.
 *
 * What survives
 *   - A change reaches the log buffer when it is made through the logged
 *     writes below, and the log file when LumRegionCommit returns: from then
 *     on it survives the death of the process. By default neither a commit
 *     nor a checkpoint forces the file to stable storage, so a crash of the
 *     machine may lose it; with Region.SyncCommit on, a commit returns only
 *     once its log is on disk (fdatasync), a checkpoint is forced to disk
 *     before a commit acknowledges it, and the directory of files that
 *     create or open makes is forced too. The snapshot of a close or of
 *     LumRegionSyncAll is always forced to disk.
 *   - A store into the image by other means is not logged. It reaches disk
 *     only with its page, when a logged change marks that page or a snapshot
 *     writes the whole image. Page protection (below) catches such stores.
 *   - A log write (or, with Region.SyncCommit, its force) that fails is
 *     reported in the log ("Logging failed") and shows in
 *     LumRegionGetLogState. The region goes on; its changes reach no log
 *     until the next checkpoint, which saves their pages instead.
 *
 * Life of the library
 *   1. LumRegionPropMgrInitialise and LumRegionArgMgrInitialise on the host's
 *      property and argument managers (lum_rs.h), then the host loads its
 *      configuration and parses its command line.
 *   2. LumRegionStartup. A failed start may be retried; after a successful
 *      one, and after LumRegionShutdown, the call returns 0 and does
 *      nothing: the library starts once per process.
 *   3. Create regions, work with them, close or drop every one of them.
 *   4. LumRegionShutdown. Regions cannot be created or synced after it
 *      (-19), and nothing else is to be relied on: close every region
 *      before it.
 *
 * Threads
 *   The host sees to it that one thread at a time changes a region
 *   (allocates, frees, writes, commits, closes). Different regions may be
 *   used by different threads at once. The background thread "REGIONCHKPT"
 *   checkpoints, once a minute (Region.CheckpointInterval) and beside the
 *   host's writes, every registered persistent region that is online and
 *   allows it (LumRegionSetCheckpointing). LumRegionLockForRead,
 *   LumRegionLockForWrite and LumRegionUnlock do nothing.
 *
 * Ownership
 *   The host owns each region handle from its creation to LumRegionClose or
 *   LumRegionDrop, and each segment handle to LumSegmentClose or
 *   LumSegmentDrop; segment handles must be given up before their region
 *   ends. The image owns everything persistent; the library frees nothing
 *   the host allocated, and the host frees nothing the library handed out.
 *
 * Caveats
 *   - Handles are not checked: a handle must not be used after it ended.
 *   - Up to 256 regions are registered for the background thread; further
 *     regions work, commit and close, but are never checkpointed and are
 *     left out by LumRegionSyncAll.
 *
 * Results: int32_t codes, 0 for success. The library's own codes are the
 * LUM_RC_ constants below; besides them stand 12 (no memory, or a mutex that
 * cannot be made) and -19 (general failure or bad argument, also for a null
 * handle or a null out pointer). LumRCToString (lum_rs.h) gives their texts.
 * Bad input gives a result code, never a crash or a write outside the
 * image; a pointer into the image is trusted, as the operations say.
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
#define LUM_RC_BAD_FILES (-411)        /**< "Invalid data files": no consistent image to open */
#define LUM_RC_BAD_PATH (-412)         /**< "Path is invalid" */
#define LUM_RC_SEGMENTS_REMAIN (-413)  /**< "Segment(s) remain in region" */
#define LUM_RC_IN_USE (-414)           /**< "Region is in use" */
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
#define LUM_RC_SEGMENT_COUNT (-489)    /**< "Segment count mismatch" */
#define LUM_RC_TAG_MISMATCH (-488)     /**< "Boundary tag mismatch" */
#define LUM_RC_BIN_RING (-487)         /**< "Free list ring broken" */
#define LUM_RC_BIN_MEMBER (-486)       /**< "Free block outside its bin" */

/* ---------------------------------------------------------------------- */
/* Configuration                                                          */
/* ---------------------------------------------------------------------- */

/* Properties, all in the group "Store", and the options that set them:
 *   Region.ProtectAll          "-regionprotectall"          default 0, option sets 1
 *   Region.MutationCheck       "-regionmutationcheck"       default 0, option sets 1
 *   Region.VerifyOnRecovery    "-regionnoverifyonrecovery"  default 1, option sets 0
 *   Region.SyncCommit          "-regionsynccommit"          default 0, option sets 1
 *   Region.CheckpointInterval  "-regioncheckpointinterval <ms>"  default 60000
 * The first four are booleans. Region.CheckpointInterval is an integer:
 * the milliseconds the background thread sleeps between its checkpoint
 * passes over the regions; a value of 0 or below keeps the default. They
 * are read once, by LumRegionStartup. */

/** Defines the library's five properties in @p properties, with their
 *  defaults, in the group "Store".
 *  @return 0, or the first failure of LumPropMgrDefineWithFlags (the
 *  properties before it stay defined); -19 for a null manager. */
LUMREGION_API int32_t LumRegionPropMgrInitialise(LumPropMgr *properties);

/** Defines the library's five command-line options in @p arguments: each
 *  boolean's assigns the opposite of its property's default, the interval's
 *  takes the value as its next argument.
 *  @return 0, or the first failure of LumArgMgrDefineWithFlags; -19 for a
 *  null manager. */
LUMREGION_API int32_t LumRegionArgMgrInitialise(LumArgMgr *arguments);

/* ---------------------------------------------------------------------- */
/* Start and stop                                                         */
/* ---------------------------------------------------------------------- */

/** Starts the library: reads the page size and the five properties from
 *  @p properties, registers the result codes' texts, starts the thread
 *  "REGIONCHKPT", and keeps @p home, the data directory, with a '/' added
 *  unless it ends in one. Its one use: LumRegionSyncAll refuses to write
 *  snapshots there. Regions take their directory from LumRegionCreate.
 *
 *  @p properties may be null, and a property may be missing or unreadable:
 *  then protection is off, mutation checks are off and verification on
 *  recovery is on, checkpoints come every 60 seconds. The properties are
 *  read once; later changes do not count.
 *
 *  Runs once per process: after a success, or after LumRegionShutdown, it
 *  returns 0 and does nothing, whatever the arguments. A failed start
 *  leaves the library not started, undoes what it made (the locale and the
 *  message catalogue excepted: the runtime keeps them, and a retry reuses
 *  them) and may be retried.
 *  @return 0; the runtime's code of the failing step (12 when memory, a
 *  mutex or the event cannot be had; an errno value when the thread cannot
 *  be started); -19 for a null @p home or one of 264 bytes or more. Logs
 *  nothing. */
LUMREGION_API int32_t LumRegionStartup(LumPropMgr *properties, const char *home);

/** Stops the library: asks the background thread to stop, waits until it
 *  has (a checkpoint in progress finishes first), and destroys the
 *  registry's mutex. It closes no region: a region still open stays in
 *  memory with its files as they are, so the host closes its regions
 *  first. Nothing happens before a successful start or after an earlier
 *  stop. @return 0. */
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

/** Creates region @p name of @p type, with an empty image: a region header
 *  and no segment. REQUIRES: a started library.
 *
 *  @p name names the region's files: 1 to 43 bytes, not "." or "..", and
 *  no '/'. Nothing looks regions up by name, so two open regions may share
 *  one; two persistent ones in one directory then share their files.
 *
 *  @p hard_limit is rounded up to 1 MiB and that much address space is
 *  reserved at once; the image can never grow beyond it. 0, and limits
 *  above 0xFFF00000 (which round past 4 GiB), are refused with -401.
 *
 *  @p soft_limit, rounded up to a page, is the most the image may grow to
 *  (-402 beyond it); LumRegionSetSoftLimit moves it later. It is not
 *  compared with the hard limit here: above it, growth ends at the hard
 *  limit with -403 instead.
 *
 *  @p largest_record is the largest allocation, or single logged write, the
 *  host will log whole; it sizes a persistent region's log buffer (longer
 *  writes are logged in pieces, allocations must stay within it).
 *
 *  @p protect non-zero keeps the image's pages read-only except while the
 *  library writes them; see Page protection.
 *
 *  @p directory holds a persistent region's files, which are named by plain
 *  concatenation of directory, name and suffix: it ends in '/' (or is
 *  empty, for the current directory), exists, and does not begin with '.'.
 *  A persistent region is used by one handle at a time: creating takes an
 *  exclusive lock on "<name>_0.chk", held until the region's end. Under it,
 *  creating empties the working files of an earlier region of the name and
 *  removes its ".tab" and ".tabnew" files. The volatile types ignore
 *  @p directory.
 *
 *  On success *region is the handle, owned by the host until LumRegionClose
 *  or LumRegionDrop, and *base the image's address, fixed until then. On
 *  failure neither is written and nothing is left behind: no handle, no
 *  file (but see -414), no registry entry.
 *  @return 0;
 *    -19  bad argument: null name or out pointer, a name as refused above
 *         or longer than 43 bytes, a type other than 1, 2 and 3, a
 *         persistent region without directory or with one beginning with
 *         '.', directory, name and ".tabnew" longer than 263 bytes
 *         together; or a library not started, or stopped;
 *    12   no memory, or a mutex cannot be made;
 *    -401 the hard limit reserves nothing (see above), or the address
 *         space cannot be reserved;
 *    -402 a soft limit of 0: the region header needs a page;
 *    -403 the first MiB cannot be committed;
 *    -1   a working file cannot be created, or the ".tab" of an earlier
 *         region of the name cannot be removed (the files made are removed);
 *    -414 the region is in use, by a handle in this process or another
 *         (no file was changed; an "_0.chk" that did not exist may remain).
 *  A lock that cannot be taken for another reason gives -19. */
LUMREGION_API int32_t LumRegionCreate(const char *name, int32_t type, uint32_t hard_limit,
                                      uint32_t soft_limit, uint32_t largest_record, int32_t protect,
                                      const char *directory, LumRegion **region, void **base);

/** Brings back the persistent region @p name from its files in
 *  @p directory (named as for LumRegionCreate): the newest consistent
 *  image, from the ".tab" snapshot, a checkpoint file or the logs alone,
 *  with every log record up to the last commit that reached its log
 *  replayed over it. Records behind the last commit are cut off the logs;
 *  logs and checkpoint files that the chosen image does not need are
 *  emptied. The region is then open as after LumRegionCreate, at its own
 *  base address, and checkpointed at the next pass of the thread.
 *  With Region.VerifyOnRecovery on (the default), the image is verified
 *  (LumRegionVerify) before the call returns.
 *  @p hard_limit, @p soft_limit, @p largest_record and @p protect are those
 *  of LumRegionCreate and need not equal the values of the run that wrote
 *  the files, as long as the image fits them.
 *  @return 0; or the code of LumRegionVerify when the recovered image is
 *    damaged (the region is open all the same, *region and *base are set,
 *    and the host decides whether to close it);
 *    -19  bad argument, as for LumRegionCreate;
 *    12   no memory;
 *    -401 the address space cannot be reserved;
 *    -402 the image does not fit the soft limit (nothing on disk changed
 *         but the cut of uncommitted log tails: open again with a larger
 *         limit);
 *    -411 no consistent image: no files, or files that do not agree, or
 *         a source that could not be read whole;
 *    -414 the region is open already, in this process or another.
 *  On failure *region and *base are null. */
LUMREGION_API int32_t LumRegionOpen(const char *name, uint32_t hard_limit, uint32_t soft_limit,
                                    uint32_t largest_record, int32_t protect, const char *directory,
                                    LumRegion **region, void **base);

/** Ends the host's use of @p region, which may still hold segments; its
 *  segment handles must have been closed, and the host must not change the
 *  region meanwhile nor use it afterwards: the handle and the image are
 *  gone when the call returns, whatever the result. A persistent region is
 *  first synced to "<directory><name>.tab" (written as ".tabnew", forced to
 *  disk and renamed over the old one); when that sync succeeded the four
 *  working files are deleted and the snapshot alone remains. When it failed
 *  the failure is reported in the log (a failed rename excepted) and the
 *  working files stay, beside the old ".tab" (after a failed rename also
 *  the complete ".tabnew"; after a failure to force the directory to disk,
 *  the new ".tab"). Waits for a checkpoint of the region in progress.
 *  @return 0 for a volatile region or a good sync; for a failed sync the
 *  errno of the step that failed (opening, writing, fsync or closing the
 *  new snapshot, the rename, or forcing the directory), or -19 when that
 *  step left none; -19 for a null handle. */
LUMREGION_API int32_t LumRegionClose(LumRegion *region);

/** Ends @p region without a snapshot and deletes its files: the ".tab" file
 *  and the working files, which stay only when the region's last sync (by
 *  LumRegionSyncAll) failed: they may hold the only good copy. Refused
 *  while segments remain. Waits for a checkpoint of the region in progress.
 *  @return 0 (the handle and the image are gone); -413 when segments remain
 *  (nothing changed, the host still owns the handle); -19 for a null
 *  handle. */
LUMREGION_API int32_t LumRegionDrop(LumRegion *region);

/** Writes a snapshot of every open persistent region into directory
 *  @p path: "<path>/<name>.tab", written as ".tabnew" and forced to disk,
 *  then renamed over the old ".tab" in one step, and the directory forced
 *  to disk: a crash at any moment leaves one whole ".tab", the old or the
 *  new. The regions stay open and their working files untouched.
 *  @p path may end in '/' or not and may hold environment references ($NAME
 *  or ${NAME}); a missing directory is created, one level deep. The path is
 *  checked before anything is created: the data directory given to
 *  LumRegionStartup is refused, compared by name without regard to case,
 *  and so is the own directory of an open persistent region (its snapshot
 *  would be taken over the commits made after it), and a directory with
 *  which a region's file names would not fit a
 *  path (263 bytes for directory, name and ".tabnew"). Holds the registry
 *  for the whole call, so the background thread waits meanwhile. The host
 *  must not change a region while it syncs. A region whose sync failed keeps
 *  its working files at LumRegionClose or LumRegionDrop until a later sync
 *  of it succeeds. The caller keeps @p path.
 *  @return 0; -412 for the data directory, a region's own directory or a
 *  path too long; 12; a code of
 *  the path conversion or expansion; the errno of examining or creating the
 *  directory; else the first failure in registry order (an errno value, or
 *  -19), after every region had its attempt; -19 for a null path or a
 *  library that is not started. */
LUMREGION_API int32_t LumRegionSyncAll(const char *path);

/** Fills @p info, which the caller provides, from the handle and the image;
 *  does nothing when either pointer is null. Takes no lock. */
LUMREGION_API void LumRegionGetInfo(LumRegion *region, LumRegionInfo *info);

/** Bytes of the live chunks of all segments (tags included), summed from
 *  the segments' statistics at each call; a segment map entry that points
 *  outside the image is skipped. 0 for a null handle. */
LUMREGION_API uint32_t LumRegionGetUsedBytes(LumRegion *region);

/** Sets the soft limit to @p limit, unrounded: as the image grows in whole
 *  pages, it can then reach @p limit rounded down to a page.
 *  @return 0; -409 above the hard limit; -410 below the image's used size;
 *  -19 for a null handle. A limit equal to either bound is accepted; a
 *  refusal changes nothing. */
LUMREGION_API int32_t LumRegionSetSoftLimit(LumRegion *region, uint32_t limit);

/** Allows (@p on non-zero) or forbids the background thread to checkpoint a
 *  persistent region; a new region allows it. A checkpoint in progress
 *  goes on. @return 0; -19 for a volatile region or a null handle. */
LUMREGION_API int32_t LumRegionSetCheckpointing(LumRegion *region, int32_t on);

/** These do nothing: the library has no readers-and-writers lock. The host
 *  orders its own threads. */
LUMREGION_API void LumRegionLockForRead(LumRegion *region);
LUMREGION_API void LumRegionLockForWrite(LumRegion *region);
LUMREGION_API void LumRegionUnlock(LumRegion *region);

/* ---------------------------------------------------------------------- */
/* Page protection                                                        */
/* ---------------------------------------------------------------------- */

/* A region created with protect non-zero, and every region while the
 * property Region.ProtectAll is on, keeps the pages of its image read-only,
 * so that a stray store faults (SIGSEGV) instead of changing persistent
 * memory behind the log's back. The library makes the pages it writes
 * writable for the store and read-only again behind it. Protection acts on
 * whole pages: whatever shares a page with a writable range is writable too.
 *
 * The one exception is a new allocation. LumMemAlloc hands it out writable,
 * and it stays writable, whatever the allocator or a logged write does on
 * the same pages, until the host ends it with LumMemLog, LumMemNoLog or
 * LumMemFree. A page stays writable while any such open allocation touches
 * it.
 *
 * A region keeps track of LUM_REGION_OPEN_ALLOCATIONS open allocations at
 * once; allocations of a segment that was dropped while they were open
 * count until the region ends. An allocation beyond that many ends
 * protection for the rest of the region's life: pages are no longer made
 * read-only, so no open allocation can fault, and nothing else changes.
 *
 * A protection change that the system refuses is logged once per region
 * (severity 5, set 3, id 14: "Failed to change the page protection of
 * region <name>: <reason>") and otherwise ignored. A region that does not
 * protect makes no protection calls at all. */

#define LUM_REGION_OPEN_ALLOCATIONS 64 /**< open allocations tracked per region */

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
 *  @p growth_percent larger than the one before. Sizes are rounded up to
 *  pages. Growth stops with -407 only when the segment's total equals
 *  @p maximum_size (rounded up to pages; 0: no maximum) exactly: a maximum
 *  that the extent sizes step past bounds nothing, and the segment then
 *  grows until the region's limits stop it. Choose a maximum that primary
 *  and secondary sizes sum to.
 *  A @p secondary_size of 0 gives each secondary extent the size that the
 *  allocation which needs it asks for.
 *  @return 0 with *segment set; -406 when 128 segments exist; -405 for a
 *  primary size of 0, a maximum below primary + secondary size, or a size
 *  whose pages exceed the region's hard limit (all leave *segment
 *  untouched and change nothing); 12 or the region's -402/-403 (with
 *  *segment null); -19 for a null argument. */
LUMREGION_API int32_t LumSegmentCreate(LumRegion *region, uint32_t primary_size,
                                       uint32_t secondary_size, uint32_t growth_percent,
                                       uint32_t maximum_size, LumSegment **segment);

/** Drops the segment with everything in it and releases @p segment.
 *  @return 0; -19 for a null handle, or one whose segment is no longer
 *  live (dropped through another handle): nothing changes, and the host
 *  still owns the handle, which LumSegmentClose releases. */
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
 *  4294967224. *pointer is null on every failure but a null segment or
 *  pointer, where it is untouched. The allocation ends with LumMemLog,
 *  LumMemNoLog or LumMemFree; until then its pages stay writable in a
 *  protecting region (see Page protection). */
LUMREGION_API int32_t LumMemAlloc(LumSegment *segment, uint32_t size, void **pointer);

/** Frees an allocation of @p segment, merging it with free neighbours.
 *  Checks before it changes anything that @p pointer names a live chunk of
 *  the segment: its boundary tags are live and agree, it lies between the
 *  fences of one of the segment's extents, and the tags of the free
 *  neighbours it merges with agree. A second free of a pointer is refused
 *  as long as its memory has not been handed out again since.
 *  @return 0; -19 for a null segment, a null pointer, or one that is not a multiple
 *  of 8 or lies outside the image's extents; -408 for a pointer that names
 *  no live chunk of the segment, such as one that is free already. A
 *  refused pointer changes nothing. */
LUMREGION_API int32_t LumMemFree(LumSegment *segment, void *pointer);

/** The bytes usable at @p pointer, at least what was asked; 0 for null. */
LUMREGION_API uint32_t LumMemGetSize(void *pointer);

/** A cursor over the live chunks of a segment (LumSegmentScanBegin). */
typedef struct LumSegmentScan LumSegmentScan;

/** Starts a scan of the live chunks of @p segment, in the order of its
 *  extents (the primary one, then the secondary ones from the newest) and
 *  by rising address inside each. The scan reads the image only; the host
 *  must not allocate or free in the segment while the scan is open.
 *  @return 0 with *scan set; -19 for a null argument or no memory. */
LUMREGION_API int32_t LumSegmentScanBegin(LumSegment *segment, LumSegmentScan **scan);

/** The next live chunk: *pointer is what LumMemAlloc gave for it.
 *  @return 0; -19 with *pointer null at the end of the scan, and on every
 *  call after it. A damaged image ends the scan: it is never read outside
 *  itself. */
LUMREGION_API int32_t LumSegmentScanNext(LumSegmentScan *scan, void **pointer);

/** Releases the cursor, after the end or before it. @return 0. */
LUMREGION_API int32_t LumSegmentScanEnd(LumSegmentScan *scan);

/** Walks the image of @p region and proves its structure: the segment
 *  count equals the entries of the segment map in use, extents tile the
 *  image in page multiples, every live segment stands in the segment map,
 *  its chunks have sane sizes, and its kept statistics equal the walk's
 *  sums. Reads only the image below its used size, whatever the image
 *  holds, and changes nothing. The region must not change meanwhile.
 *  @return 0, or the code of the first failing test: -489 (segment
 *  count), -497, -496, -495 (segment map), -494, -493, -499, -498
 *  (extents), -492 (a free front fence), -491 (chunks), -490 (statistics);
 *  -19 for a null handle. */
LUMREGION_API int32_t LumRegionVerify(LumRegion *region);

/** Proves everything that LumRegionVerify proves, and all else that
 *  allocation, free and segment drop trust of an image: the foot tag of
 *  every extent, fence and chunk equals its head tag; no two free chunks
 *  and no two free extents lie side by side, and the image does not end in
 *  a free extent; each secondary extent's prev link names the extent
 *  before it; every entry of the segment map names a live primary extent,
 *  and every live extent belongs to exactly one segment; every free chunk
 *  and free extent lies exactly once on the ring of the bin that its size
 *  selects, and every ring is closed in both directions; all six counters
 *  of each segment equal a recount. After it returns 0, LumMemAlloc,
 *  LumMemFree, LumSegmentCreate and LumSegmentDrop on the image touch only
 *  the image. Reads only the image below its used size, whatever the image
 *  holds, and changes nothing; the region must not change meanwhile. Its
 *  walk takes volatile memory of about 1/64 of the used size, for one call.
 *  @return 0; the codes of LumRegionVerify, in the same order where the
 *  same test fails; -488 (a foot tag, or a free tag below the first
 *  extent), -492 (a fence that is not whole), -491 (free chunks side by
 *  side), -494 (a free extent beside a free one or at the end), -498 (a
 *  prev link, or an extent in no chain or in two), -496 (a map entry that
 *  names no live primary extent), -487 (a ring that leaves the free
 *  blocks, meets one twice or does not close both ways), -486 (a free
 *  block on the ring of another bin, or on no ring), -490 (also for the
 *  extent counters); 12 when the walk's memory cannot be had; -19 for a
 *  null handle. */
LUMREGION_API int32_t LumRegionVerifyDeep(LumRegion *region);

/* ---------------------------------------------------------------------- */
/* Commit, offline and online                                             */
/* ---------------------------------------------------------------------- */

/** Makes the logged changes so far survive the death of the process: one
 *  write of the log buffer to the log file of the current generation. When
 *  a checkpoint has finished, the commit of an online region acknowledges
 *  it, and recovery may then start from that checkpoint. A volatile or
 *  offline region writes nothing.
 *  By default not a flush to stable storage: a commit survives the process,
 *  not the machine. With Region.SyncCommit on, the log is forced to disk
 *  (fdatasync) before the commit returns.
 *  Requires the host's one writer of the region: it must not run beside
 *  another write or commit of it.
 *  @return 0, also when the log has failed: a failed log is reported in the
 *  log ("Logging failed") and in LumRegionGetLogState, its changes stay
 *  marked for the next checkpoint, and logging resumes once that checkpoint
 *  has moved the generation on; -19 for a null handle. */
LUMREGION_API int32_t LumRegionCommit(LumRegion *region);

/** What LumRegionGetLogState reports of a persistent region's log. */
typedef struct LumLogState {
    uint32_t generation;   /**< the generation whose log commits reach now */
    int32_t failed;        /**< 1: the commits of generation failed_since on are at risk */
    uint32_t failed_since; /**< while failed: the generation of the first failed log */
} LumLogState;

/** Fills @p state: whether the commits of @p region would survive the death
 *  of the process. A log that fails stays failed for the rest of its
 *  generation, and the logs after it follow a gap that recovery can cross
 *  only from a checkpoint taken after the failure; the checkpoint that
 *  moves on may also restart the failed generation's log. So once a log
 *  has failed (failed is 1), every commit of generation failed_since and
 *  later may be lost with the process, also those made before the failure
 *  in that generation (LumLogState.generation, read after a commit, names
 *  its generation), until the commit that acknowledges the next checkpoint:
 *  that commit is durable again, with every change before it. Reads only;
 *  any thread.
 *  @return 0; -19 for a null handle or state, or a region that is not
 *  persistent. */
LUMREGION_API int32_t LumRegionGetLogState(LumRegion *region, LumLogState *state);

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
 *  background thread does once an interval: the pages changed since the last
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
 * reported in the log (severity 4, set 3, id 15), naming the operation, the
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
 *  Call one of LumMemLog and LumMemNoLog for each new allocation before
 *  the commit that is to keep it, or free it instead. Pages that another
 *  open allocation touches stay writable. Nothing for a null argument. */
LUMREGION_API void LumMemLog(LumSegment *segment, void *pointer);

/** As LumMemLog, without the record: the chunk reaches disk only with its
 *  pages, when some other change marks them or a sync writes the image. */
LUMREGION_API void LumMemNoLog(LumSegment *segment, void *pointer);

/* ---------------------------------------------------------------------- */
/* Persistent list                                                        */
/* ---------------------------------------------------------------------- */

/* A doubly linked list in the image: a 28-byte header and nodes, all
 * allocations in a segment of the host's. A list has no handle and owns no
 * segment: the host keeps the header's pointer (or its offset) and passes
 * what each operation needs. Links are 32-bit offsets from @p base, which
 * must be the same in every call on a list, in every run: pass the base
 * that LumRegionCreate or LumRegionOpen gave, and the list survives a
 * restart at another address.
 *
 * Nodes are handed around by their user pointer, the address of the host's
 * data; the two words before it are the links. A node is on one list or on
 * none; moving it takes a delete and an insert. LumRegListHead and
 * LumRegListTail give positions before the first and behind the last node,
 * which hold no data and serve only as a position for the inserts and
 * LumRegListDeleteNext and as a node for LumRegListNext and LumRegListPrev.
 *
 * Every change goes through the logged writes (an insert or a delete costs
 * five logged words), and nothing commits. The host orders all calls on a
 * list. Beyond null pointers nothing is checked: a position on no list, a
 * node on another list or a node inserted twice damage the list.
 *
 * Reports are severity 4, set 102, id 0. */

/** The header of a persistent list, in the image. */
typedef struct LumRegList LumRegList;

/** Called by LumRegListFlush and LumRegListDestroy for each node taken off
 *  the list, with the node's user pointer. The node is on no list and the
 *  walk has left it, so the callback may free it. Its result is ignored. */
typedef int32_t (*LumRegListCallback)(LumSegment *segment, void *node, void *argument);

/** Makes an empty list in @p segment, logged whole.
 *  @return the list; null when it cannot be allocated, reported as
 *  "LumRegListCreate: Failed to allocate memory for region list. <reason>". */
LUMREGION_API LumRegList *LumRegListCreate(LumSegment *segment, void *base);

/** Takes every node off @p list, first to last, leaving each on no list,
 *  and calls @p callback (may be null) for it with @p argument. The nodes
 *  stay allocated unless the callback frees them. */
LUMREGION_API void LumRegListFlush(LumSegment *segment, void *base, LumRegList *list,
                                   LumRegListCallback callback, void *argument);

/** LumRegListFlush, then frees the header. @return the code of LumMemFree. */
LUMREGION_API int32_t LumRegListDestroy(LumSegment *segment, void *base, LumRegList *list,
                                        LumRegListCallback callback, void *argument);

/** A new node on no list with @p size bytes of data, logged whole and
 *  protected again: write the data with the logged writes.
 *  @return its user pointer; null when it cannot be allocated (also for a
 *  size within 8 bytes of 4 GiB), after raising the exception "RegionList"
 *  "Failed to allocate persistent list entry" with the text of the
 *  allocator's code as its value (LumThreadExceptionRaise). */
LUMREGION_API void *LumRegListAlloc(LumSegment *segment, void *base, uint32_t size);

/** Frees a node of LumRegListAlloc without unlinking it: take it off its
 *  list first. @return the code of LumMemFree; -19 for a null node. */
LUMREGION_API int32_t LumRegListFree(LumSegment *segment, void *node);

/** Links @p node, which is on no list, in behind (After) or ahead of
 *  (Before) @p position, a node of @p list or its head or tail. */
LUMREGION_API void LumRegListInsertAfter(LumSegment *segment, void *base, LumRegList *list,
                                         void *node, void *position);
LUMREGION_API void LumRegListInsertBefore(LumSegment *segment, void *base, LumRegList *list,
                                          void *node, void *position);

/** Takes @p node off @p list and leaves it on no list, allocated. */
LUMREGION_API void LumRegListDelete(LumSegment *segment, void *base, LumRegList *list,
                                    void *node);

/** Takes the node behind @p position off @p list, as LumRegListDelete does.
 *  @return its user pointer; null, writing nothing, when no node stands
 *  behind @p position (the last node, the head of an empty list). */
LUMREGION_API void *LumRegListDeleteNext(LumSegment *segment, void *base, LumRegList *list,
                                         void *position);

/** The first and the last node; null for an empty list. */
LUMREGION_API void *LumRegListFirst(void *base, LumRegList *list);
LUMREGION_API void *LumRegListLast(void *base, LumRegList *list);

/** The positions before the first and behind the last node; never null
 *  for a list. */
LUMREGION_API void *LumRegListHead(void *base, LumRegList *list);
LUMREGION_API void *LumRegListTail(void *base, LumRegList *list);

/** The node behind or ahead of @p node (a node or a position); null at
 *  the end of the list and for a node on no list. */
LUMREGION_API void *LumRegListNext(void *base, void *node);
LUMREGION_API void *LumRegListPrev(void *base, void *node);

/** The node at @p index, counted from 0 by a walk from the front.
 *  @return null for an index below 0 or not below the count, reported as
 *  "LumRegListNth: Node is out of range.". */
LUMREGION_API void *LumRegListNth(void *base, LumRegList *list, int32_t index);

/** The number of nodes on @p list; 0 for null. */
LUMREGION_API uint32_t LumRegListNumItems(LumRegList *list);

/* ---------------------------------------------------------------------- */
/* Persistent hash table                                                  */
/* ---------------------------------------------------------------------- */

/* A chained hash table with one or more keys that lives in one segment of
 * its own: its header is the first allocation of the segment, its items
 * are further allocations, and every link is an offset from the image's
 * base, so a table comes back with its region at any address. Each item
 * stands on one chain of every key, and is found by any of them. The bucket
 * count is fixed at creation; there is no rehashing.
 *
 * The table knows nothing of its items' contents: the host supplies a hash
 * and a compare function per key each time it creates or opens a table.
 * Every persistent change goes through the logged writes, so it survives
 * from the host's next LumRegionCommit on; no operation here commits.
 * Nothing here locks: the host serialises all calls on a table, cursors
 * included. A handle holds no reference to its region: end it with
 * LumRegHashClose (the table stays) or LumRegHashDestroy (the table goes)
 * before the region ends.
 *
 * An item is the host's data behind one link pair per key. The pointer the
 * host holds (an "item" below) is that of its data; the host writes the
 * data with the logged writes, and what the hash functions read must not
 * change while the item is inserted.
 *
 * Failures are reported in the log at severity 4, set 102, id 0, with the
 * name of the operation, as given with each operation. */

/** Opaque handle of an open table. */
typedef struct LumRegHash LumRegHash;
/** Opaque cursor over the items of a table (LumRegHashCursorOpen). */
typedef struct LumRegHashCursor LumRegHashCursor;

/** Hash of a key, or of an item's data, for one key of the table. */
typedef uint32_t (*LumRegHashFunction)(LumRegHash *table, const void *key_or_item, void *argument);
/** 0 when @p item matches @p key for one key of the table. */
typedef int32_t (*LumRegHashCompare)(LumRegHash *table, const void *key, const void *item,
                                     void *argument);
/** Called for each item by LumRegHashFlush and LumRegHashDestroy. */
typedef void (*LumRegHashItemCallback)(LumRegHash *table, void *item, void *argument);
/** Called for each item by LumRegHashWalk; not 0 to stop. */
typedef int32_t (*LumRegHashVisit)(void *item, void *argument);
/** Orders two items for a sorted walk: negative, 0 or positive. */
typedef int32_t (*LumRegHashOrder)(LumRegHash *table, const void *a, const void *b, void *argument);

/** The functions of one key. Both functions are required. */
typedef struct LumRegHashKey {
    LumRegHashFunction hash;
    void *hash_argument;
    LumRegHashCompare compare;
    void *compare_argument;
} LumRegHashKey;

/** The segment of a new table: the arguments of LumSegmentCreate. */
typedef struct LumRegHashConfig {
    uint32_t primary_size;
    uint32_t secondary_size;
    uint32_t growth_percent;
    uint32_t maximum_size;
} LumRegHashConfig;

/** Creates a table of @p bucket_count buckets per key in a new segment of
 *  @p region, whose id LumSegmentGetInfo(LumRegHashSegment(table)) gives.
 *  @p keys, an array of @p key_count entries, is kept by the handle, not
 *  copied: it must outlive the handle. The header takes
 *  8 x bucket_count x key_count + 28 bytes and is logged whole.
 *  @return the handle, or null with a report: "LumRegHashCreate: Bucket and
 *  key counts must be at least 1."; "...: Hash and comparison functions
 *  must be specified." (also for null @p keys or @p config); "...: Failed
 *  to allocate volatile space."; "...: Failed to create segment.  <code>";
 *  "...: Failed to allocate space for persistent store. <code>". No segment
 *  is left behind by a failure. */
LUMREGION_API LumRegHash *LumRegHashCreate(LumRegion *region, const LumRegHashConfig *config,
                                           uint32_t bucket_count, const LumRegHashKey *keys,
                                           uint32_t key_count);

/** Opens the table of segment @p segment_id, whose first live chunk is its
 *  header, with the functions of @p keys (kept as by LumRegHashCreate).
 *  @return the handle, or null with a report (the reports of create for
 *  the keys and the handle, then): "LumRegHashOpen: Failed to open
 *  segment. <code>"; "...: Segment Scan Begin failed. <code>";
 *  "...: LumSegmentScanNext failed. <code>" (a segment with no live
 *  chunk); "Hash table <id> in region "<name>" has wrong version number
 *  (<stored> != 1)"; "Hash table <id> in region "<name>" has <stored>
 *  keys, not <key_count>"; "Hash table <id> in region "<name>" has
 *  <buckets> buckets of <keys> keys in a chunk of <bytes> bytes" (no
 *  buckets, or a header chunk too small for them). A refused table is
 *  never walked. */
LUMREGION_API LumRegHash *LumRegHashOpen(LumRegion *region, uint32_t segment_id,
                                         const LumRegHashKey *keys, uint32_t key_count);

/** Ends the handle and leaves the table in the image. */
LUMREGION_API void LumRegHashClose(LumRegHash *table);

/** Empties the table: calls @p callback (which may free the item; null
 *  calls nothing) for every item, then clears the item count and every
 *  bucket. Frees nothing itself. */
LUMREGION_API void LumRegHashFlush(LumRegHash *table, LumRegHashItemCallback callback,
                                   void *argument);

/** LumRegHashFlush, then drops the table's segment with all that is left
 *  in it and releases the handle. */
LUMREGION_API void LumRegHashDestroy(LumRegHash *table, LumRegHashItemCallback callback,
                                     void *argument);

/** Allocates an item of @p size bytes of data, logged whole as it stands
 *  and on no chain: write its data with the logged writes, then insert it.
 *  @return the item; on failure an exception of class "RegionHash"
 *  ("Failed to allocate persistent hash table entry", with the text of the
 *  allocator's code) is raised, and null is returned if the raise returns. */
LUMREGION_API void *LumRegHashAlloc(LumRegHash *table, uint32_t size);

/** Frees an item that is on no chain. A refusal of the allocator is
 *  reported: "LumRegHashFree: Failed to free the hash table entry.
 *  <code>". */
LUMREGION_API void LumRegHashFree(LumRegHash *table, void *item);

/** Puts @p item at the tail of its chain of every key, so duplicates keep
 *  the order of their insertion. */
LUMREGION_API void LumRegHashInsert(LumRegHash *table, void *item);

/** Takes an inserted @p item off all its chains; it stays allocated. */
LUMREGION_API void LumRegHashDelete(LumRegHash *table, void *item);

/** The oldest item that matches @p key by key @p key_index; null when none
 *  does or @p key_index is not below the key count (nothing is read). */
LUMREGION_API void *LumRegHashFind(LumRegHash *table, const void *key, uint32_t key_index);

/** The next item behind @p item on its chain of @p key_index that matches
 *  @p item by that key's compare; null when none does or @p key_index is
 *  not below the key count. */
LUMREGION_API void *LumRegHashNext(LumRegHash *table, void *item, uint32_t key_index);

/** Calls @p visit for every item. Unsorted (@p sorted 0), in bucket order
 *  of key 0 and order of insertion inside a bucket; a visit that returns
 *  non-zero skips the rest of its bucket only. Sorted, in the order that
 *  @p order gives; a visit that returns non-zero ends the walk. @p visit
 *  must leave the item on its chains.
 *  @return 0, also after a stop; 12 when a sorted walk gets no memory;
 *  -19 for a null table or @p visit, or a sorted walk without @p order. */
LUMREGION_API int32_t LumRegHashWalk(LumRegHash *table, LumRegHashVisit visit, void *argument,
                                     int32_t sorted, LumRegHashOrder order, void *order_argument);

/** Items inserted and not deleted; 0 for null. */
LUMREGION_API uint32_t LumRegHashNumItems(LumRegHash *table);

/** The table's segment, for LumSegmentGetInfo and the like; the handle
 *  owns it. */
LUMREGION_API LumSegment *LumRegHashSegment(LumRegHash *table);

/** The host's version number of the table, 0 after creation. */
LUMREGION_API uint32_t LumRegHashGetVersion(LumRegHash *table);

/** Sets the host's version number (logged). */
LUMREGION_API void LumRegHashSetVersion(LumRegHash *table, uint32_t version);

/** A cursor over all items, in the order of an unsorted walk. The item it
 *  returned last may be deleted and freed; the one after it may not.
 *  @return the cursor, or null with the report "LumRegHashCursorOpen:
 *  Failed to allocate memory for cursor. <code>". */
LUMREGION_API LumRegHashCursor *LumRegHashCursorOpen(LumRegHash *table);

/** The next item; null at the end and on every call after it. */
LUMREGION_API void *LumRegHashCursorNext(LumRegHashCursor *cursor);

/** Releases the cursor. */
LUMREGION_API void LumRegHashCursorClose(LumRegHashCursor *cursor);

#ifdef __cplusplus
}
#endif

#endif /* LUMREGION_H */
