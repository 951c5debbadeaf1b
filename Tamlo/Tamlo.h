// Everything the library offers.
#pragma once

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/Backtrace.h>
#include <Tamlo/CheckIncompat.h>
#include <Tamlo/Counters.h>
#include <Tamlo/Debug.h>
#include <Tamlo/DisplayPointer.h>
#include <Tamlo/Errno.h>
#include <Tamlo/EventBaseTimers.h>
#include <Tamlo/Exception.h>
#include <Tamlo/Fmt.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/ForkHandler.h>
#include <Tamlo/HashMix.h>
#include <Tamlo/IntrospectionMap.h>
#include <Tamlo/LibeventFactory.h>
#include <Tamlo/Locking.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Platform.h>
#include <Tamlo/Plugin.h>
#include <Tamlo/Random.h>
#include <Tamlo/Terminate.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TypeName.h>
#include <Tamlo/Util.h>
