// Everything the library offers.
#pragma once

#include <Tamlo/Allocator.h>
#include <Tamlo/Assert.h>
#include <Tamlo/Backtrace.h>
#include <Tamlo/CheckIncompat.h>
#include <Tamlo/Debug.h>
#include <Tamlo/Errno.h>
#include <Tamlo/Exception.h>
#include <Tamlo/Fmt.h>
#include <Tamlo/FmtraceCpp.h>
#include <Tamlo/ForkHandler.h>
#include <Tamlo/Locking.h>
#include <Tamlo/Loco.h>
#include <Tamlo/Plugin.h>
#include <Tamlo/Terminate.h>
#include <Tamlo/Thread.h>
#include <Tamlo/TypeName.h>
