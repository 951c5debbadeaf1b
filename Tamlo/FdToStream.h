// An output stream over an open file descriptor that stays the caller's:
// closing the stream flushes it and leaves the descriptor open. Build it as
// `FdToStream out(fd, boost::iostreams::never_close_handle)`. Write errors set
// the stream's bad bit. For the library's own debug renderings; it needs
// Boost.Iostreams at link time.
#pragma once

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream.hpp>

namespace Tamlo {

using FdToStream = boost::iostreams::stream<boost::iostreams::file_descriptor_sink>;

}  // namespace Tamlo
