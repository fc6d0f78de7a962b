// Compares the locks with their peers. One thread, or several threads at once, take and release the
// lock around a short critical section, which is the same for all locks. With several threads the
// time of an operation is the total time divided by the number of operations of all threads.
// SPDX-License-Identifier: Apache-2.0
#include <ck_pflock.h>
#include <ck_rwlock.h>
#include <ck_tflock.h>
#include <mutex>
#include <pthread.h>
#include <spinlock/cas.h>
#include <spinlock/fas.h>
#include <spinlock/ticket.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/bench.hpp"
#include "support/threads.hpp"
#include "vorn_rwlock.h"
#include "vorn_spinlock.h"
#include "vorn_ticketlock.h"
#include "vorn_time.h"
#include "vorn_trwlock.h"

namespace {

// The number of times that each thread takes the lock in one operation. The share of a thread in a
// turn must be long compared with a time slice.
constexpr std::uint64_t kBatch = 100;

struct alignas(64) Data {
  std::uint64_t words[4] = {};
};

void change(Data &data) {
  for (std::uint64_t &word : data.words)
    word = word + 1;
  bench::keep(data);
}

void look(const Data &data) {
  std::uint64_t sum = 0;
  for (const std::uint64_t word : data.words)
    sum += word;
  bench::keep(sum);
}

template <class Lock> void write_once(Lock &lock, Data &data) {
  lock.write_lock();
  change(data);
  lock.write_unlock();
}

template <class Lock> void read_once(Lock &lock, Data &data) {
  lock.read_lock();
  look(data);
  lock.read_unlock();
}

enum class Use { kWrite, kRead };

// Returns a contender that takes its own Lock in that many threads at the same time.
template <class Lock, Use kUse> bench::Contender takes(const std::string &name, int threads) {
  auto *lock = new Lock; // lives until the program ends, as does its data
  auto *data = new Data;
  const auto once = [=] {
    if constexpr (kUse == Use::kWrite) {
      write_once(*lock, *data);
    } else {
      read_once(*lock, *data);
    }
  };
  if (threads == 1) return bench::contender(name, once);
  return bench::contender(name, [=](std::uint64_t count) {
    return bench::in_threads(static_cast<unsigned int>(threads), count * kBatch, once) /
           (kBatch * threads);
  });
}

struct alignas(64) Spin {
  vorn_spinlock_s lock = VORN_SPINLOCK_INIT;
  void write_lock() { vorn_spinlock_lock(&lock); }
  void write_unlock() { vorn_spinlock_unlock(&lock); }
};

struct alignas(64) PosixSpin {
  PosixSpin() { pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE); }
  void write_lock() { pthread_spin_lock(&lock); }
  void write_unlock() { pthread_spin_unlock(&lock); }
  pthread_spinlock_t lock;
};

struct alignas(64) StdMutex {
  void write_lock() { lock.lock(); }
  void write_unlock() { lock.unlock(); }
  std::mutex lock;
};

struct alignas(64) CkFas {
  void write_lock() { ck_spinlock_fas_lock(&lock); }
  void write_unlock() { ck_spinlock_fas_unlock(&lock); }
  ck_spinlock_fas_t lock = CK_SPINLOCK_FAS_INITIALIZER;
};

struct alignas(64) CkCas {
  void write_lock() { ck_spinlock_cas_lock_eb(&lock); }
  void write_unlock() { ck_spinlock_cas_unlock(&lock); }
  ck_spinlock_cas_t lock = CK_SPINLOCK_CAS_INITIALIZER;
};

struct alignas(64) Ticket {
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  void write_lock() { vorn_tspinlock_lock(&lock); }
  void write_unlock() { vorn_tspinlock_unlock(&lock); }
};

struct alignas(64) CkTicket {
  void write_lock() { ck_spinlock_ticket_lock(&lock); }
  void write_unlock() { ck_spinlock_ticket_unlock(&lock); }
  ck_spinlock_ticket_t lock = CK_SPINLOCK_TICKET_INITIALIZER;
};

struct alignas(64) Plain {
  vorn_rwlock_s lock = VORN_RWLOCK_INIT;
  void read_lock() { vorn_rwlock_read_lock(&lock); }
  void read_unlock() { vorn_rwlock_read_unlock(&lock); }
  void write_lock() { vorn_rwlock_write_lock(&lock); }
  void write_unlock() { vorn_rwlock_write_unlock(&lock); }
};

struct alignas(64) TicketReaderWriter {
  vorn_trwlock_s lock = VORN_TRWLOCK_INIT;
  void read_lock() { vorn_trwlock_read_lock(&lock); }
  void read_unlock() { vorn_trwlock_read_unlock(&lock); }
  void write_lock() { vorn_trwlock_write_lock(&lock); }
  void write_unlock() { vorn_trwlock_write_unlock(&lock); }
};

struct alignas(64) PosixReaderWriter {
  void read_lock() { pthread_rwlock_rdlock(&lock); }
  void read_unlock() { pthread_rwlock_unlock(&lock); }
  void write_lock() { pthread_rwlock_wrlock(&lock); }
  void write_unlock() { pthread_rwlock_unlock(&lock); }
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
};

struct alignas(64) CkReaderWriter {
  void read_lock() { ck_rwlock_read_lock(&lock); }
  void read_unlock() { ck_rwlock_read_unlock(&lock); }
  void write_lock() { ck_rwlock_write_lock(&lock); }
  void write_unlock() { ck_rwlock_write_unlock(&lock); }
  ck_rwlock_t lock = CK_RWLOCK_INITIALIZER;
};

struct alignas(64) CkPhaseFair {
  void read_lock() { ck_pflock_read_lock(&lock); }
  void read_unlock() { ck_pflock_read_unlock(&lock); }
  void write_lock() { ck_pflock_write_lock(&lock); }
  void write_unlock() { ck_pflock_write_unlock(&lock); }
  ck_pflock_t lock = CK_PFLOCK_INITIALIZER;
};

struct alignas(64) CkTaskFair {
  void read_lock() { ck_tflock_ticket_read_lock(&lock); }
  void read_unlock() { ck_tflock_ticket_read_unlock(&lock); }
  void write_lock() { ck_tflock_ticket_write_lock(&lock); }
  void write_unlock() { ck_tflock_ticket_write_unlock(&lock); }
  ck_tflock_ticket_t lock = CK_TFLOCK_TICKET_INITIALIZER;
};

std::string place(int threads) {
  return threads == 1 ? ", alone" : ", " + std::to_string(threads) + " threads";
}

void spin_row(const bench::Table &table, int threads) {
  table.row({"spin lock" + place(threads), 0},
            {takes<Spin, Use::kWrite>("ours", threads),
             takes<PosixSpin, Use::kWrite>("pthread_spin", threads),
             takes<StdMutex, Use::kWrite>("std::mutex", threads),
             takes<CkFas, Use::kWrite>("ck fas", threads),
             takes<CkCas, Use::kWrite>("ck cas backoff", threads)});
}

void ticket_row(const bench::Table &table, int threads) {
  table.row({"ticket lock" + place(threads), 0},
            {takes<Ticket, Use::kWrite>("ours", threads),
             takes<CkTicket, Use::kWrite>("ck ticket", threads)});
}

// The peers of the plain lock keep no order or prefer one kind of thread; those of the ticket lock
// serve threads in order.
template <Use kUse> void reader_writer_rows(const bench::Table &table, int threads) {
  const std::string use = kUse == Use::kRead ? ", read" : ", write";
  table.row({"reader-writer lock" + use + place(threads), 0},
            {takes<Plain, kUse>("ours", threads),
             takes<PosixReaderWriter, kUse>("pthread_rwlock", threads),
             takes<CkReaderWriter, kUse>("ck rwlock", threads)});
  table.row({"ticket reader-writer lock" + use + place(threads), 0},
            {takes<TicketReaderWriter, kUse>("ours", threads),
             takes<PosixReaderWriter, kUse>("pthread_rwlock", threads),
             takes<CkPhaseFair, kUse>("ck pflock", threads),
             takes<CkTaskFair, kUse>("ck tflock", threads)});
}

} // namespace

int main(int argc, char **argv) {
  vorn_gettime_init();
  const bench::Table table{argc, argv, "Locks"};
  for (const int threads : {1, 2, 8})
    spin_row(table, threads);
  // These locks spin without limit: with more threads than CPUs, this would measure the scheduler.
  for (const int threads : {1, 2}) {
    ticket_row(table, threads);
    reader_writer_rows<Use::kRead>(table, threads);
    reader_writer_rows<Use::kWrite>(table, threads);
  }
}
