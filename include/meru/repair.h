/// @file repair.h
/// Rebuilding a movie that was cut short, from the side index that was written beside it (MovieInfo::snapshot_path).
///
/// The broken movie holds the packets but not the table that says where they are; the index says it. A repair copies
/// every indexed packet into a new movie, without decoding. Broken movie and index are only read. What a repair can
/// bring back is the container's own packet bytes, as MP4 and MOV files keep them; other containers (MKV, FLV) wrap
/// each packet, but play as far as they were written without a repair.
///
/// In a forked child MERU_StopRepair on a repair of its parent returns at once, without ending it.
///
/// Paths are UTF-8. Those of the broken movie and the index may be in double quotes and have white space around them.
/// Every path is copied or used up before the starting call returns. A repair also prints its progress on standard
/// output, a line "progress:0.500000" with each report.
#ifndef MERU_REPAIR_H
#define MERU_REPAIR_H

#include "meru/export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

/// Told how a repair goes on.
///
/// @param progress  0.0 to 1.0: how much of the index is worked off
/// @param code      one of MovieRepairCode
/// @param msg       the text of a failure, "" for progress; valid during the call only
/// @param user      the pointer given at the start
/// @threads MERU_StartRepair_Async: a thread of the repair. MERU_StartRepair_sync: the caller's. One call at a time.
///          The first may come before MERU_StartRepair_Async has returned. It may call any exported function,
///          MERU_StopRepair on its own repair included, and must not throw. The repair waits for it.
typedef void (*MovieRepairCallback)(double progress, int code, const char* msg, void* user);

/// Codes of MovieRepairCallback.
enum MovieRepairCode {
  MERU_REPAIR_PROGRESS = 0,       ///< "": every tenth line of the index, and once when it is worked off
  MERU_REPAIR_NO_MOVIE = -1,      ///< "cannot open broken_file...": the broken movie cannot be opened
  MERU_REPAIR_NO_INDEX = -2,      ///< "parse moov file failed ...": the index is missing, describes no stream, or has
                                  ///< parameter sets of H.264 that cannot be used
  MERU_REPAIR_STOPPED = -5,       ///< "repair: already stopped.  can't recall this function..."; not seen by hosts of
                                  ///< these functions, since each start makes a repair of its own
  MERU_REPAIR_WRITE_FAILED = -10  ///< FFmpeg's text: the new movie cannot be made or completed. The path of the broken
                                  ///< movie or of the index as output is refused so, before anything is written. So is
                                  ///< a movie called that lacks packets because the system refused memory for them, a
                                  ///< seek, or the reading of a file; it is completed without them
};

/// Starts a repair on a thread of its own and returns at once.
///
/// @param broken  the movie that was cut short
/// @param moov    its side index
/// @param output  the movie to make; its extension chooses the container. An existing file is replaced
/// @param cb      told the progress and the failure; may be null
/// @param user    handed to `cb` unchanged
/// @return the repair, to be ended with MERU_StopRepair, also when it is over or has failed. When no thread could be
///         made, `cb` was told MERU_REPAIR_WRITE_FAILED and the repair is not running. Null only without memory.
MERU_API void* MERU_StartRepair_Async(const char* broken, const char* moov, const char* output, MovieRepairCallback cb,
                                      void* user);

/// Repairs on the calling thread; parameters as above.
///
/// Damage is no failure: an index without a usable record gives a movie without pictures, and true. A packet that
/// cannot be restored costs the rest of its line of the index, a movie that ends early what would follow. A record that
/// cannot be read also misplaces what lies behind it, since an index says sizes, not places.
/// @return whether `output` was made and completed; false after a report with a negative code
MERU_API bool MERU_StartRepair_sync(const char* broken, const char* moov, const char* output, MovieRepairCallback cb,
                                    void* user);

/// Ends a repair and frees it. One that still runs is broken off after the current line of the index; the movie made so
/// far is completed.
///
/// `*handle` is set to null first; a null `handle` or `*handle` is allowed and does nothing, and so is a repair that
/// another thread has ended meanwhile. Waits for the thread of the repair, so no callback runs once it has returned;
/// from inside the callback it does not wait, no further callback comes, and the movie is completed a little later.
/// @threads any
MERU_API void MERU_StopRepair(void** handle);

/// @return whether the repair's thread is still at work: already true when MERU_StartRepair_Async returns, unless the
///         repair is over by then. false for null and for a repair that was ended
/// @threads any
MERU_API bool MERU_Repair_IsRunning(void* handle);

#endif
