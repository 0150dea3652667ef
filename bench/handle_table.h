// A bare table of handles in a library of its own: what lock and unlock cannot do without where the caller is outside.
#ifndef KAL_BENCH_HANDLE_TABLE_H
#define KAL_BENCH_HANDLE_TABLE_H

void* tableAdd(void* address);
void* tableLock(void* handle);
void tableUnlock(void* handle);
void tableClear();

#endif
