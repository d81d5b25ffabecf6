// A driver in a thread of its own; see the header.
#include "tqdb_threaded.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace tqdb {

namespace {

// One call that waits: rows, positions, or the parts of a unit.
struct waiting_call {
  enum : uint8_t { ADD, ANNOUNCE, COMMIT } kind;

  row_batch rows;
  load_positions changed;
  std::vector<load_span> spans;
};

struct threaded_driver final : load_driver {
  static constexpr size_t most_weight = 2 << 20; // of rows that wait

  explicit threaded_driver(std::unique_ptr<load_driver> of) : inside(std::move(of)), worker([this] { work(); }) {}

  ~threaded_driver() override;

  open_result open(const load_scope &scope, load_state *state) override;

  take_result begin_loading(bool bulk) override {
    return after_all([&] { return inside->begin_loading(bulk); });
  }

  bool announces() const override { return inside->announces(); }

  take_result announce(const std::vector<load_span> &spans) override {
    return enqueue({waiting_call::ANNOUNCE, {}, {}, spans});
  }

  take_result add(const row_batch &rows) override { return enqueue({waiting_call::ADD, rows, {}, {}}); }

  take_result commit(const load_positions &changed) override {
    return enqueue({waiting_call::COMMIT, {}, changed, {}});
  }

  take_result settle() override {
    return after_all([] { return TQDB_TAKEN; });
  }

  void roll_back() override;

  take_result finish() override {
    return after_all([&] { return inside->finish(); });
  }

  take_result drop_testrun(int32_t testrun, int32_t node) override {
    return after_all([&] { return inside->drop_testrun(testrun, node); });
  }

  take_result drop_before(int64_t time_ms) override {
    return after_all([&] { return inside->drop_before(time_ms); });
  }

  int64_t unit_bytes(bool bulk) const override { return inside->unit_bytes(bulk); }

private:
  void work();
  take_result run(const waiting_call &call);
  take_result enqueue(waiting_call call);
  void drain(std::unique_lock<std::mutex> *lock);
  template <class Call> take_result after_all(Call call);

  std::unique_ptr<load_driver> inside;
  std::mutex mutex; // guards all below
  std::condition_variable turned;
  std::deque<waiting_call> calls;
  size_t weight = 0; // of their rows
  bool busy = false, leave = false;
  take_result result = TQDB_TAKEN; // of the first call that failed; nothing is carried out after it
  std::thread worker;              // begun last
};

} // namespace

threaded_driver::~threaded_driver() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    leave = true;
  }
  turned.notify_all();
  worker.join();
}

take_result threaded_driver::run(const waiting_call &call) {
  switch (call.kind) {
  case waiting_call::ADD:
    return inside->add(call.rows);
  case waiting_call::ANNOUNCE:
    return inside->announce(call.spans);
  default:
    return inside->commit(call.changed);
  }
}

void threaded_driver::work() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    turned.wait(lock, [this] { return leave || !calls.empty(); });
    if (calls.empty())
      return;
    const waiting_call call = std::move(calls.front());
    calls.pop_front();
    busy = true;
    if (result == TQDB_TAKEN && !leave) {
      lock.unlock();
      const take_result taken = run(call);
      lock.lock();
      result = taken;
    }
    weight -= call.rows.weight();
    busy = false;
    turned.notify_all();
  }
}

take_result threaded_driver::enqueue(waiting_call call) {
  std::unique_lock<std::mutex> lock(mutex);
  turned.wait(lock, [this] { return weight < most_weight || result != TQDB_TAKEN; });
  if (result == TQDB_TAKEN) {
    weight += call.rows.weight();
    calls.push_back(std::move(call));
    turned.notify_all();
  } else {
    drain(&lock);
    error_text = inside->error();
  }
  return result;
}

void threaded_driver::drain(std::unique_lock<std::mutex> *lock) {
  turned.wait(*lock, [this] { return calls.empty() && !busy; });
}

// Runs a call in the caller's thread once nothing waits any more.
template <class Call> take_result threaded_driver::after_all(Call call) {
  std::unique_lock<std::mutex> lock(mutex);
  drain(&lock);
  if (result == TQDB_TAKEN)
    result = call();
  error_text = inside->error();
  return result;
}

open_result threaded_driver::open(const load_scope &scope, load_state *state) {
  std::unique_lock<std::mutex> lock(mutex);
  drain(&lock);
  result = TQDB_TAKEN;
  const open_result opened = inside->open(scope, state);
  error_text = inside->error();
  return opened;
}

void threaded_driver::roll_back() {
  std::unique_lock<std::mutex> lock(mutex);
  drain(&lock);
  inside->roll_back();
}

std::unique_ptr<load_driver> make_threaded(std::unique_ptr<load_driver> inside) {
  return std::make_unique<threaded_driver>(std::move(inside));
}

} // namespace tqdb
