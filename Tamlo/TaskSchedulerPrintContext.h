// Where a TaskSchedulerSnapshot renders its JSON: a RapidJSON writer over a
// string buffer. takeText() hands out what was written so far and empties the
// buffer while the writer keeps its place, so a long rendering can be passed
// on in slices and the buffer stays small.
//
// Needs RapidJSON's headers (rapidjson-dev), which is why the umbrella
// Tamlo.h leaves this header out. Not thread-safe; one rendering at a time.
#pragma once

#include <string>
#include <string_view>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Tamlo {

class TaskSchedulerPrintContext {
 public:
  using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

  TaskSchedulerPrintContext() : writer_(buffer_) {}
  TaskSchedulerPrintContext(TaskSchedulerPrintContext const&) = delete;
  TaskSchedulerPrintContext& operator=(TaskSchedulerPrintContext const&) = delete;

  Writer& writer() { return writer_; }
  // The text written and not yet taken.
  std::string_view text() const { return {buffer_.GetString(), buffer_.GetSize()}; }
  std::string takeText() {
    std::string text(this->text());
    buffer_.Clear();
    return text;
  }
  // Whether a whole JSON value has been written.
  bool complete() const { return writer_.IsComplete(); }

 private:
  rapidjson::StringBuffer buffer_;
  Writer writer_;
};

}  // namespace Tamlo
