// The timing wheel against a plain model: an ordered multimap of pending
// expiries plus a count of expired records. The input is a program of adds
// (near, at or before now, and far), deletes, clock updates (small steps,
// large jumps, and exactly the wait the wheel asks for) and drains.
//
// A record handed out early, handed out twice or while idle, lost, or a
// timeouts_timeout() beyond the model's earliest expiry traps.
#include <array>
#include <map>

#include <Tamlo/Timeouts.h>

#include "FuzzSupport.h"

namespace {

constexpr size_t kRecords = 64;
constexpr timeout_t kNever = ~timeout_t{0};

enum class State { idle, waiting, expired };

class WheelModelCheck {
 public:
  WheelModelCheck() : wheel_(timeouts_open(100, nullptr)) {
    FUZZ_CHECK(wheel_ != nullptr, "timeouts_open failed");
    for (auto& record : records_)
      timeout_init(&record, TIMEOUT_ABS);
  }
  ~WheelModelCheck() { timeouts_close(wheel_); }

  void run(TamloFuzz::ByteReader& input) {
    while (!input.empty()) {
      uint8_t const op = input.byte();
      switch (op % 8) {
        case 0:  // near, including at or just before now
          add(input.byte() % kRecords, now_ + input.byte() - std::min<timeout_t>(now_, 16));
          break;
        case 1:  // far: up to 2^40 ticks, through every level of the wheel
          add(input.byte() % kRecords,
              now_ + 1 + (timeout_t{input.value<uint32_t>()} << (op >> 5)));
          break;
        case 2:
          del(input.byte() % kRecords);
          break;
        case 3:
          update(now_ + input.byte());
          break;
        case 4:
          update(now_ + (timeout_t{input.value<uint16_t>()} << (op >> 4)));
          break;
        case 5: {  // sleep as long as the wheel says, as its users do
          timeout_t const wait = timeouts_timeout(wheel_);
          if (wait != kNever)
            update(now_ + wait);
          break;
        }
        case 6:
          drain();
          break;
        case 7:  // a clock that goes back is ignored
          update(now_ - std::min<timeout_t>(now_, input.byte()));
          break;
      }
      checkQueries();
    }
    // Nothing may be lost: running to the last expiry releases every record.
    if (!waiting_.empty())
      update(waiting_.rbegin()->first);
    drain();
    FUZZ_CHECK(!timeouts_pending(wheel_), "pending with an empty model");
  }

 private:
  size_t indexOf(timeout const* record) const {
    auto const index = static_cast<size_t>(record - records_.data());
    FUZZ_CHECK(record >= records_.data() && index < kRecords, "foreign record {}",
               fmt::ptr(record));
    return index;
  }

  void forget(size_t i) {
    if (state_[i] == State::waiting)
      waiting_.erase(position_[i]);
    else if (state_[i] == State::expired)
      --expiredCount_;
    state_[i] = State::idle;
  }

  void add(size_t i, timeout_t expires) {
    timeouts_add(wheel_, &records_[i], expires);
    forget(i);
    if (expires <= now_) {
      state_[i] = State::expired;
      ++expiredCount_;
    } else {
      state_[i] = State::waiting;
      position_[i] = waiting_.emplace(expires, i);
    }
  }

  void del(size_t i) {
    timeouts_del(wheel_, &records_[i]);
    FUZZ_CHECK(records_[i].pending == nullptr, "record {} still linked after delete", i);
    forget(i);
  }

  void update(abstime_t now) {
    timeouts_update(wheel_, now);
    if (now > now_)
      now_ = now;
    while (!waiting_.empty() && waiting_.begin()->first <= now_) {
      state_[waiting_.begin()->second] = State::expired;
      ++expiredCount_;
      waiting_.erase(waiting_.begin());
    }
    FUZZ_CHECK(timeouts_now(wheel_) == now_, "wheel at {}, model at {}", timeouts_now(wheel_),
               now_);
  }

  void drain() {
    while (timeout* record = timeouts_get(wheel_)) {
      size_t const i = indexOf(record);
      FUZZ_CHECK(state_[i] != State::idle, "record {} handed out twice or while idle", i);
      FUZZ_CHECK(state_[i] == State::expired, "record {} released early: expires {}, now {}", i,
                 record->expires, now_);
      FUZZ_CHECK(record->pending == nullptr, "record {} handed out still linked", i);
      state_[i] = State::idle;
      --expiredCount_;
    }
    FUZZ_CHECK(expiredCount_ == 0, "{} expired records lost", expiredCount_);
  }

  void checkQueries() const {
    FUZZ_CHECK(timeouts_expired(wheel_) == (expiredCount_ != 0),
               "expired() disagrees, model has {}", expiredCount_);
    FUZZ_CHECK(timeouts_pending(wheel_) == !waiting_.empty(), "pending() disagrees, model has {}",
               waiting_.size());
    timeout_t const wait = timeouts_timeout(wheel_);
    if (expiredCount_ != 0) {
      FUZZ_CHECK(wait == 0, "timeout {} with expired records", wait);
    } else if (waiting_.empty()) {
      FUZZ_CHECK(wait == kNever, "timeout {} on an empty wheel", wait);
    } else {
      timeout_t const earliest = waiting_.begin()->first - now_;
      FUZZ_CHECK(wait != 0 && wait <= earliest, "timeout {} but the earliest expiry is in {}", wait,
                 earliest);
    }
  }

  timeouts* wheel_;
  abstime_t now_ = 0;
  std::array<timeout, kRecords> records_{};
  std::array<State, kRecords> state_{};
  std::multimap<timeout_t, size_t> waiting_;
  std::array<std::multimap<timeout_t, size_t>::iterator, kRecords> position_{};
  size_t expiredCount_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  TamloFuzz::ByteReader input(data, size);
  WheelModelCheck check;
  check.run(input);
  return 0;
}
