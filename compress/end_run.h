// Ending a run for good, for who is about to give the compressed stream up or to read what was written.
#ifndef KAL_COMPRESS_END_RUN_H
#define KAL_COMPRESS_END_RUN_H

#include <kal/cfile.h>

// KalFlushCFile that does not ask whether the stream's buffer holds anything unwritten: a run that was written
// and not ended is ended. The same statuses.
int16_t endWrittenRun(scfiletag* cfile);

#endif
