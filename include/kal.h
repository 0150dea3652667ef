// kal: byte streams, item files, compressed runs and operation lists for imaging programs.
//
// The whole public face of the library; every family also stands alone under kal/.
#ifndef KAL_H
#define KAL_H

#include <kal/base.h>
#include <kal/cfile.h>
#include <kal/heap.h>
#include <kal/item.h>
#include <kal/list.h>
#include <kal/lzw.h>
#include <kal/memory.h>
#include <kal/oplist.h>
#include <kal/path.h>
#include <kal/stream.h>
#include <kal/tagset.h>
#include <kal/vmem.h>

#endif
