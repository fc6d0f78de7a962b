/* What the samples of the documents and of the headers' comments use and do not declare. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TESTS_DOC_PRELUDE_H
#define VORN_TESTS_DOC_PRELUDE_H

#ifndef _GNU_SOURCE
#define _GNU_SOURCE /* gettid */
#endif

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <evlog.h>
#include <vorn.h>
#include <vornsim.h>

struct record {
  vorn_rb_node_s node;
  int key;
};

extern void *request;
extern void *volume;
extern void *job;
extern unsigned int files;
extern long tid;
extern int event;
extern int condition;
extern const cpumask *mask;
extern vorn_wait_queue_head_s queue;
extern const void *first, *second;
extern uint32_t first_length, second_length;

void serve(void *request);
void serve_cpu(unsigned int cpu);
void reject(void *request);
void start_threads(uint64_t count);
void store_position(void);
void expired(uint64_t request);
void on_flush(vorn_sched_work_s *work);
int on_event(vorn_notifier_block_s *block, unsigned long action, void *data);
void *run_mover(void *job);

#endif
