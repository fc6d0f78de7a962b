/* All of Vorn's public headers. */
#ifndef VORN_H
#define VORN_H

#include "kram_fs.h"
#include "kram_syscall.h"
#include "vorn_api.h"
#include "vorn_avl.h"
#include "vorn_bay.h"
#include "vorn_bitops.h"
#include "vorn_cfg.h"
#include "vorn_cmd.h"
#include "vorn_cpufreq.h"
#include "vorn_crc.h"
#include "vorn_cst.h"
#include "vorn_dl.h"
#include "vorn_filecmd.h"
#include "vorn_fileops.h"
#include "vorn_hash.h"
#include "vorn_init.h"
#include "vorn_jiffies.h"
#include "vorn_list.h"
#include "vorn_log.h"
#include "vorn_mem.h"
#include "vorn_mtx.h"
#include "vorn_percpu_posix.h"
#include "vorn_process.h"
#include "vorn_rbtree.h"
#include "vorn_reboot.h"
#include "vorn_ring.h"
#include "vorn_rwlock.h"
#include "vorn_sched.h"
#include "vorn_shm.h"
#include "vorn_spinlock.h"
#include "vorn_str.h"
#include "vorn_symbol.h"
#include "vorn_syscall.h"
#include "vorn_thrd.h"
#include "vorn_thread_dump.h"
#include "vorn_ticketlock.h"
#include "vorn_time.h"
#include "vorn_trwlock.h"
#include "vorn_tty.h"

#if __has_include(<mxml.h>) /* only services that read XML need to have that header */
#include "vorn_xml.h"
#endif

#endif
