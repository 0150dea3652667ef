// kal: byte streams, item files, compressed runs and operation lists for imaging programs.
//
// The whole public face of the library; every family also stands alone under kal/.
#ifndef KAL_H
#define KAL_H

#include <kal/base.h>
#include <kal/cfile.h>
#include <kal/compound.h>
#include <kal/file.h>
#include <kal/heap.h>
#include <kal/item.h>
#include <kal/list.h>
#include <kal/log.h>
#include <kal/lzw.h>
#include <kal/mapping.h>
#include <kal/memory.h>
#include <kal/oplist.h>
#include <kal/path.h>
#include <kal/resource.h>
#include <kal/status.h>
#include <kal/storage.h>
#include <kal/stream.h>
#include <kal/tagset.h>
#include <kal/text.h>
#include <kal/verify.h>
#include <kal/vmem.h>

#endif
