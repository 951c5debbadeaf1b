#include "Tamlo/Timeouts.h"

#include <cerrno>
#include <cstddef>

#include "TestSupport.h"

namespace {

constexpr timeout_t kHz = 100;
constexpr timeout_t kDay = 24 * 3600 * kHz;
constexpr timeout_t kNever = ~timeout_t{0};
// A realistic current tick: seconds since the epoch at 100 Hz, mid-wheel.
constexpr abstime_t kStart = 1'700'000'000 * kHz + 12345;

using Wheel = std::unique_ptr<timeouts, decltype(&timeouts_close)>;

Wheel openWheel(abstime_t now) {
  Wheel T(timeouts_open(kHz, nullptr), timeouts_close);
  timeouts_update(T.get(), now);
  return T;
}

// Records left on a wheel are declared before it: closing takes them off.
timeout makeRecord(int flags = TIMEOUT_ABS) {
  timeout to;
  timeout_init(&to, flags);
  return to;
}

using Records = std::vector<timeout*>;

Records drain(timeouts* T) {
  Records out;
  while (timeout* to = timeouts_get(T))
    out.push_back(to);
  return out;
}

TEST(Timeouts, OpenRejectsZeroHz) {
  int error = 0;
  EXPECT_EQ(timeouts_open(0, &error), nullptr);
  EXPECT_EQ(error, EINVAL);
}

// Within one update, records come out by expiry, equal expiries in the order
// added; records expired by an earlier update or add come first. (Which
// records expire, deletes and re-adds: fuzz/TimeoutsFuzz.cpp.)
TEST(Timeouts, ExpiredRecordsComeOutInOrderOfExpiring) {
  Wheel T = openWheel(kStart);
  timeout a = makeRecord(), b = makeRecord(), c = makeRecord(), d = makeRecord(), e = makeRecord();
  timeouts_add(T.get(), &b, kStart + 10);
  timeouts_add(T.get(), &a, kStart + 10);
  timeouts_add(T.get(), &c, kStart + 20);
  timeouts_update(T.get(), kStart + 10);
  timeouts_add(T.get(), &d, kStart);
  timeouts_update(T.get(), kStart + 20);
  timeouts_add(T.get(), &e, kStart + 15);
  EXPECT_EQ(drain(T.get()), (Records{&b, &a, &d, &c, &e}));
}

TEST(Timeouts, RelativeExpiryCountsFromNowAndSaturates) {
  Wheel T = openWheel(kStart);
  timeout relative = makeRecord(0), forever = makeRecord(0);
  // Due now: expired at once. (On a wheel it would never come out.)
  timeouts_add(T.get(), &relative, 0);
  ASSERT_EQ(drain(T.get()), (Records{&relative}));
  timeouts_add(T.get(), &relative, 10);
  timeouts_add(T.get(), &forever, kNever - 5);
  EXPECT_EQ(forever.expires, kNever);
  timeouts_update(T.get(), kStart + 9);
  EXPECT_EQ(timeouts_get(T.get()), nullptr);
  timeouts_update(T.get(), kStart + 10);
  EXPECT_EQ(drain(T.get()), (Records{&relative}));
}

// Sleeping for timeouts_timeout() and updating must reach every expiry on its
// tick exactly, in few steps, and never step past a pending expiry.
TEST(Timeouts, FollowingTimeoutReachesEachExpiryOnItsTick) {
  const timeout_t distances[] = {
      1,         2,       63,      64,       65,        4095,       4096,
      4097,      262'143, 262'144, 3 * kDay, 30 * kDay, 1ull << 36, (1ull << 36) + 1,
      1ull << 50};
  for (abstime_t start : {abstime_t{0}, abstime_t{63}, kStart, (abstime_t{1} << 42) - 1}) {
    SCOPED_TRACE(start);
    Wheel T = openWheel(start);
    std::vector<timeout> records(std::size(distances));
    for (std::size_t i = 0; i < records.size(); ++i) {
      timeout_init(&records[i], TIMEOUT_ABS);
      timeouts_add(T.get(), &records[i], start + distances[i]);
    }
    // The distances ascend: records must come out in their order.
    for (std::size_t next = 0, steps = 0; next < records.size();) {
      ASSERT_LT(++steps, 200u);
      abstime_t const now = timeouts_now(T.get());
      timeout_t const wait = timeouts_timeout(T.get());
      ASSERT_GE(wait, 1u);
      ASSERT_LE(wait, start + distances[next] - now);
      timeouts_update(T.get(), now + wait);
      for (timeout* to : drain(T.get())) {
        ASSERT_EQ(to, &records[next++]);
        ASSERT_EQ(to->expires, now + wait);
      }
    }
  }
}

// Crossing the end of a lower wheel changes a higher digit; records just past
// the carry must be neither released early nor skipped. The last tick is a
// boundary too: nothing lies beyond it.
TEST(Timeouts, JumpsPastTheEndOfLowerWheelsAndToTheLastTick) {
  for (int bits : {6, 12, 18, 36, 60}) {
    SCOPED_TRACE(bits);
    const abstime_t boundary = abstime_t{1} << bits;
    Wheel T = openWheel(boundary - 1);
    timeout at = makeRecord(), after = makeRecord(), beyond = makeRecord(), last = makeRecord();
    timeouts_add(T.get(), &at, boundary);
    timeouts_add(T.get(), &after, boundary + 5);
    timeouts_add(T.get(), &beyond, boundary + 64);
    timeouts_add(T.get(), &last, kNever);
    timeouts_update(T.get(), boundary);
    EXPECT_EQ(drain(T.get()), (Records{&at}));
    timeouts_update(T.get(), boundary + 4);
    EXPECT_EQ(timeouts_timeout(T.get()), 1u);
    timeouts_update(T.get(), boundary + 63);
    EXPECT_EQ(drain(T.get()), (Records{&after}));
    timeouts_update(T.get(), kNever - 1);
    EXPECT_EQ(drain(T.get()), (Records{&beyond}));
    EXPECT_EQ(timeouts_timeout(T.get()), 1u);
    timeouts_update(T.get(), kNever);
    EXPECT_EQ(drain(T.get()), (Records{&last}));
    timeouts_add(T.get(), &last, kNever);
    EXPECT_TRUE(timeouts_expired(T.get()));
  }
}

TEST(Timeouts, CloseTakesRecordsOffTheWheel) {
  timeouts* T = timeouts_open(kHz, nullptr);
  timeouts_update(T, kStart);
  timeout records[] = {makeRecord(), makeRecord(), makeRecord()};
  for (timeout_t i = 0; i < 3; ++i)
    timeouts_add(T, &records[i], kStart + i * kDay / 2);  // expired, low and high wheel
  timeouts_close(T);
  for (timeout const& to : records)
    EXPECT_EQ(to.pending, nullptr);
  timeouts_close(nullptr);
}

}  // namespace
