#include "Tamlo/Timeouts.h"

#include <bit>
#include <cerrno>
#include <new>

// How records are placed.
//
// A tick is read as a number in base 64: wheel w holds digit w (bits 6w to
// 6w+5), and 11 wheels cover all 64 bits. A pending record goes on the wheel
// of the highest digit in which its expiry differs from the current tick,
// in the slot named by its expiry's digit there. So every record on wheel w
// shares all higher digits with the current tick and has a larger digit w:
// slots never wrap around, the lowest occupied slot of the lowest occupied
// wheel bounds the earliest expiry, and an update only has to look at the
// slots whose digit the new tick has reached or passed.

namespace {

constexpr int kDigitBits = 6;
constexpr int kSlotsPerWheel = 1 << kDigitBits;
constexpr int kWheelCount = (64 + kDigitBits - 1) / kDigitBits;

// Bits 0 to `slot` set.
constexpr std::uint64_t slotsUpTo(unsigned slot) {
  return (std::uint64_t{2} << slot) - 1;
}

unsigned digitOf(abstime_t tick, int wheel) {
  return static_cast<unsigned>(tick >> (wheel * kDigitBits)) & (kSlotsPerWheel - 1);
}

// The digits of `tick` above wheel `wheel`, as a number.
abstime_t digitsAbove(abstime_t tick, int wheel) {
  return tick >> (wheel * kDigitBits) >> kDigitBits;
}

}  // namespace

// All wheels together: the current tick, one list per slot with one occupancy bit each,
// and the FIFO of expired records. The bit of a slot is set exactly when its
// list is non-empty.
struct timeouts {
  abstime_t now = 0;
  std::uint64_t occupied[kWheelCount] = {};
  timeout_list slots[kWheelCount * kSlotsPerWheel] = {};
  timeout_list expired = {};
};

namespace {

void place(timeouts* T, timeout* to) noexcept {
  if (to->expires <= T->now) {
    timeout_list_push_back(&T->expired, to);
    return;
  }
  int wheel = (63 - std::countl_zero(to->expires ^ T->now)) / kDigitBits;
  unsigned slot = digitOf(to->expires, wheel);
  T->occupied[wheel] |= std::uint64_t{1} << slot;
  timeout_list_push_back(&T->slots[wheel * kSlotsPerWheel + slot], to);
}

void unlink(timeouts* T, timeout* to) noexcept {
  timeout_list* list = to->pending;
  timeout_list_remove(to);
  if (list != &T->expired && timeout_list_empty(list)) {
    auto index = list - T->slots;
    T->occupied[index / kSlotsPerWheel] &= ~(std::uint64_t{1} << (index % kSlotsPerWheel));
  }
}

void detachAll(timeout_list* list) noexcept {
  while (timeout* to = timeout_list_first(list)) {
    timeout_list_remove(to);
  }
}

}  // namespace

timeout* timeout_init(timeout* to, int flags) noexcept {
  to->flags = flags;
  to->expires = 0;
  to->pending = nullptr;
  to->tqe = {};
  return to;
}

timeouts* timeouts_open(timeout_t hz, int* error) noexcept {
  int failure = 0;
  timeouts* T = nullptr;
  if (hz == 0) {
    failure = EINVAL;
  } else {
    T = new (std::nothrow) timeouts;
    if (T == nullptr) {
      failure = ENOMEM;
    }
  }
  if (error != nullptr) {
    *error = failure;
  }
  return T;
}

void timeouts_close(timeouts* T) noexcept {
  if (T == nullptr) {
    return;
  }
  for (int wheel = 0; wheel < kWheelCount; ++wheel) {
    for (std::uint64_t left = T->occupied[wheel]; left != 0; left &= left - 1) {
      detachAll(&T->slots[wheel * kSlotsPerWheel + std::countr_zero(left)]);
    }
  }
  detachAll(&T->expired);
  delete T;
}

void timeouts_add(timeouts* T, timeout* to, timeout_t expires) noexcept {
  if (to->pending != nullptr) {
    unlink(T, to);
  }
  if ((to->flags & TIMEOUT_ABS) == 0) {
    // Saturate: a relative expiry too far out to count means "never".
    expires = expires > ~T->now ? ~timeout_t{0} : T->now + expires;
  }
  to->expires = expires;
  place(T, to);
}

void timeouts_del(timeouts* T, timeout* to) noexcept {
  if (to->pending != nullptr) {
    unlink(T, to);
  }
}

void timeouts_update(timeouts* T, abstime_t now) noexcept {
  const abstime_t then = T->now;
  if (now <= then) {
    return;
  }
  T->now = now;
  // Lowest wheel first: records drained from a slot move only to expired or
  // to lower wheels, which are done by then, so nothing is visited twice.
  for (int wheel = 0; wheel < kWheelCount; ++wheel) {
    if ((then >> (wheel * kDigitBits)) == (now >> (wheel * kDigitBits))) {
      break;  // This digit and all above are unchanged.
    }
    std::uint64_t passed = ~std::uint64_t{0};
    if (digitsAbove(then, wheel) == digitsAbove(now, wheel)) {
      passed = slotsUpTo(digitOf(now, wheel)) & ~slotsUpTo(digitOf(then, wheel));
    }
    std::uint64_t due = T->occupied[wheel] & passed;
    T->occupied[wheel] &= ~due;
    for (; due != 0; due &= due - 1) {
      timeout_list* list = &T->slots[wheel * kSlotsPerWheel + std::countr_zero(due)];
      while (timeout* to = timeout_list_first(list)) {
        timeout_list_remove(to);
        place(T, to);
      }
    }
  }
}

abstime_t timeouts_now(const timeouts* T) noexcept {
  return T->now;
}

timeout* timeouts_get(timeouts* T) noexcept {
  timeout* to = timeout_list_first(&T->expired);
  if (to != nullptr) {
    timeout_list_remove(to);
  }
  return to;
}

bool timeouts_expired(const timeouts* T) noexcept {
  return !timeout_list_empty(&T->expired);
}

bool timeouts_pending(const timeouts* T) noexcept {
  for (std::uint64_t bits : T->occupied) {
    if (bits != 0) {
      return true;
    }
  }
  return false;
}

timeout_t timeouts_timeout(const timeouts* T) noexcept {
  if (timeouts_expired(T)) {
    return 0;
  }
  // Records on lower wheels all expire before those on higher ones, so the
  // lowest occupied slot of the lowest occupied wheel is the next work: the
  // expiry itself on wheel 0, the tick its slot must be moved down above it.
  for (int wheel = 0; wheel < kWheelCount; ++wheel) {
    if (T->occupied[wheel] != 0) {
      int shift = wheel * kDigitBits;
      abstime_t slotStart = (digitsAbove(T->now, wheel) << shift << kDigitBits) |
                            (abstime_t(std::countr_zero(T->occupied[wheel])) << shift);
      return slotStart - T->now;
    }
  }
  return ~timeout_t{0};
}
