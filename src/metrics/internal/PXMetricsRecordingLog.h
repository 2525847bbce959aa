// PXKit — the log that carries recordings from the calling threads to the
// metrics operation queue.
//
// A recording call appends a small record (what to do, its argument and the
// bytes of the metric identity) to the open batch, under a lock held for a
// copy. The record that opens a batch also enqueues, still under that lock,
// the one job that will apply the whole batch; later records join the batch
// until that job starts (it closes the batch first) or until a non-recording
// operation is enqueued (seal), so the queue applies recordings and other
// operations in the order they were enqueued. A burst of calls thus costs the
// queue one job, one tracker reference and one acquisition of the tracker
// lock per batch instead of per call, and the records lie one after another
// in memory for the worker to read.
//
//   log.append(recording, [&](RecordingBatch* batch) { queue.async(applyJob(batch)); });
//   // on the queue, holding the tracker lock:
//   log.close(batch);
//   Recording r;
//   for (RecordingBatch::Cursor at; batch->read(at, r);) apply(r);
//   log.recycle(batch);
//
// Thread safety: append and seal from any thread; close and recycle from the
// jobs of the queue (one at a time). A batch is read only by its job, after
// close (which orders every append before it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

namespace pxkit::internal {

// What a recording call asks of its metric.
enum class RecordingKind : uint8_t { UpdateValue, StartOrContinueUsage, StopUsage, SetFixedValue };

// One recording: the metric identity (a part with a null data pointer is
// absent, which a new metric keeps) and the call's argument: the delta
// (UpdateValue), the value (SetFixedValue, both exact in a double) or the
// autostop interval in seconds (StartOrContinueUsage).
struct Recording {
  RecordingKind kind = RecordingKind::UpdateValue;
  double argument = 0;
  std::string_view identifier;
  std::string_view primary;
  std::string_view secondary;
};

// A fixed-size block of records, reused through the log's spare list.
struct RecordingChunk;

// Records stored one after another in a list of chunks; made and filled by
// the log, read by the batch's job.
class RecordingBatch {
 public:
  // Where reading stands: start with a default one.
  struct Cursor {
    const RecordingChunk* chunk = nullptr;
    size_t offset = 0;
    bool started = false;
  };
  // Reads the record at `cursor` into `recording` and moves past it; false
  // after the last. The views point into the batch and live until it is
  // given back to the log.
  bool read(Cursor& cursor, Recording& recording) const noexcept;

 private:
  friend class RecordingLog;
  RecordingChunk* first_ = nullptr;
  RecordingChunk* last_ = nullptr;
  RecordingBatch* nextSpare_ = nullptr;  // in the log's spare list
};

class RecordingLog {
 public:
  RecordingLog() = default;
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;
  ~RecordingLog();

  // Appends `recording` to the open batch. When none is open, one is opened
  // and `enqueueApply(RecordingBatch*)` is called under the log's lock to
  // enqueue the job that will apply it; if that throws, the record is dropped
  // and the exception passes on. Throws std::bad_alloc (nothing appended)
  // when memory is exhausted.
  template <class EnqueueApply>
  void append(const Recording& recording, EnqueueApply&& enqueueApply);
  // Later records go to a new batch (and job): called before a non-recording
  // operation is enqueued, so that it runs after the records appended before
  // it and before those appended after it.
  void seal() noexcept;
  // The batch's job calls this before reading it: the batch takes no more
  // records. The batch applied before it is given back in the same step.
  void close(RecordingBatch* batch) noexcept;
  // The batch's job calls this once it has applied the batch; the batch and
  // its chunks are given back for reuse at the next close (or freed with the log).
  void recycle(RecordingBatch* batch) noexcept { applied_ = batch; }

 private:
  // Chunks kept for reuse (a burst's further chunks are freed once applied):
  // 512 KiB at most.
  static constexpr size_t kSpareChunks = 32;

  // Copies `recording` into `batch`, taking a chunk when the last one is full.
  void appendLocked(RecordingBatch& batch, const Recording& recording);
  RecordingBatch* takeBatchLocked();
  void giveBackLocked(RecordingBatch* batch) noexcept;

  std::mutex lock_;
  RecordingBatch* open_ = nullptr;          // under lock_
  RecordingBatch* spareBatches_ = nullptr;  // under lock_
  RecordingChunk* spareChunks_ = nullptr;   // under lock_
  size_t spareChunkCount_ = 0;              // under lock_
  RecordingBatch* applied_ = nullptr;       // only jobs of the queue, one at a time
};

template <class EnqueueApply>
void RecordingLog::append(const Recording& recording, EnqueueApply&& enqueueApply) {
  std::lock_guard guard(lock_);
  if (open_) {
    appendLocked(*open_, recording);
    return;
  }
  RecordingBatch* batch = takeBatchLocked();
  try {
    appendLocked(*batch, recording);
    enqueueApply(batch);
  } catch (...) {
    giveBackLocked(batch);
    throw;
  }
  open_ = batch;
}

}  // namespace pxkit::internal
