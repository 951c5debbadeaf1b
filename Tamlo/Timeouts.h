// Tickless hierarchical timing wheel.
//
// The wheel keeps caller-owned `struct timeout` records sorted by expiry tick
// well enough to answer "what is due now?" and "when is the next thing due?"
// in constant time, however many records are pending. It never allocates
// after timeouts_open(), never throws, and never calls back into the caller:
// expired records are handed out one by one through timeouts_get().
//
// Thread safety: none. A wheel and the records on it belong to one thread;
// the wheel takes no locks.
//
// Time is measured in ticks (timeout_t). The wheel has no clock of its own: it
// only moves when timeouts_update() is given a later tick.

#pragma once

#include <cstdint>

using timeout_t = std::uint64_t;
using abstime_t = std::uint64_t;

// `expires` given to timeouts_add() is an absolute tick. Without this flag it
// is a number of ticks after the wheel's current time.
inline constexpr int TIMEOUT_ABS = 0x02;

// Bits of `timeout::flags` that belong to the caller. The wheel never reads
// or writes them; only timeout_init() sets them, to what the caller passed.
inline constexpr int TIMEOUT_CALLER_BITS = 0x1C;

struct timeout;
struct timeouts;

// Links of a record within a timeout_list; both null while on no list.
struct timeout_link {
  struct timeout* tqe_next;  // The next record, or null at the tail.
  struct timeout* tqe_prev;  // The previous record, or null at the head.
};

// Head of a doubly linked FIFO of records. A zero-initialised head is an
// empty list, and an empty head may be copied or moved freely; a non-empty
// one must stay where it is, since its records point back at it.
struct timeout_list {
  struct timeout* first;  // Null when empty.
  struct timeout* last;   // Null when empty.
};

// One timer record, owned by the caller and linked into the wheel while
// pending. Invariant: `pending` is null exactly when the record is on no list,
// and otherwise names the list that `tqe` links it into.
struct timeout {
  int flags;
  timeout_t expires;             // Absolute expiry tick, set by timeouts_add().
  struct timeout_list* pending;  // The list the record is on, or null.
  struct timeout_link tqe;       // Links within `*pending`.
};

// Prepares a record that is on no list. Keeps all of `flags`, including the
// caller's bits. Returns `to`.
struct timeout* timeout_init(struct timeout* to, int flags) noexcept;

// Creates an empty wheel at tick 0. `hz` (ticks per second) must be non-zero;
// the wheel itself works only in ticks. Returns null and stores an errno
// value in `*error` (if `error` is not null) on failure.
struct timeouts* timeouts_open(timeout_t hz, int* error) noexcept;

// Frees the wheel. Records still on it, pending or expired, are taken off
// (their `pending` becomes null). Null is accepted.
void timeouts_close(struct timeouts* T) noexcept;

// Puts `to` on the wheel to expire at `expires` (see TIMEOUT_ABS), taking it
// off the wheel first if it is already there. An expiry at or before the
// current tick makes the record expired at once.
// Precondition: `to` is on this wheel or on no list.
void timeouts_add(struct timeouts* T, struct timeout* to, timeout_t expires) noexcept;

// Takes `to` off the wheel, whether pending or expired. Does nothing if `to`
// is on no list. Precondition: `to` is on this wheel or on no list.
void timeouts_del(struct timeouts* T, struct timeout* to) noexcept;

// Advances the wheel to tick `now`: every record expiring at or before `now`
// becomes expired. A tick at or before the current one changes nothing.
void timeouts_update(struct timeouts* T, abstime_t now) noexcept;

// The wheel's current tick: the latest given to timeouts_update().
abstime_t timeouts_now(const struct timeouts* T) noexcept;

// Takes the oldest expired record off the wheel and returns it, or returns
// null when none is expired. Records come out in the order they expired.
struct timeout* timeouts_get(struct timeouts* T) noexcept;

// Whether timeouts_get() would return a record.
bool timeouts_expired(const struct timeouts* T) noexcept;

// Whether any record is waiting for its expiry (expired ones not counted).
bool timeouts_pending(const struct timeouts* T) noexcept;

// Ticks from the current tick after which timeouts_update() has work to do:
// 0 when a record is expired, ~0 when nothing is pending, and otherwise a
// value in [1, earliest expiry - now]. It is shorter than the earliest expiry
// when records must first be moved down the wheels, so a caller that sleeps
// this long and updates reaches every record exactly on its tick.
timeout_t timeouts_timeout(const struct timeouts* T) noexcept;

// List helpers, for callers that chain records into lists of their own while
// the records are off the wheel. The wheel uses them for its own lists too.

inline bool timeout_list_empty(const struct timeout_list* list) noexcept {
  return list->first == nullptr;
}

inline struct timeout* timeout_list_first(const struct timeout_list* list) noexcept {
  return list->first;
}

// Appends `to`, which must be on no list, and sets `to->pending` to `list`.
inline void timeout_list_push_back(struct timeout_list* list, struct timeout* to) noexcept {
  to->tqe.tqe_next = nullptr;
  to->tqe.tqe_prev = list->last;
  if (list->last != nullptr) {
    list->last->tqe.tqe_next = to;
  } else {
    list->first = to;
  }
  list->last = to;
  to->pending = list;
}

// Unlinks `to` from the list `to->pending`, which must not be null, and clears
// `pending`. Only for the caller's own lists: records on a wheel must leave it
// by timeouts_del() or timeouts_get().
inline void timeout_list_remove(struct timeout* to) noexcept {
  struct timeout_list* list = to->pending;
  struct timeout* next = to->tqe.tqe_next;
  struct timeout* prev = to->tqe.tqe_prev;
  if (prev != nullptr) {
    prev->tqe.tqe_next = next;
  } else {
    list->first = next;
  }
  if (next != nullptr) {
    next->tqe.tqe_prev = prev;
  } else {
    list->last = prev;
  }
  to->tqe.tqe_next = nullptr;
  to->tqe.tqe_prev = nullptr;
  to->pending = nullptr;
}
