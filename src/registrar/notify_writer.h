// Writes one XML document into memory, element by element, and counts the steps: where writing stops, the step says.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct _xmlBuffer;
struct _xmlTextWriter;

/// Every operation is one step or a few with numbers of their own; false when the step failed, and then for every
/// later one. The indentation is libxml2's: one blank for each level.
class NotifyWriter {
 public:
  /// Writing stops with the step that would make the document larger than `limit` bytes.
  explicit NotifyWriter(std::size_t limit) : limit_(limit) {}
  ~NotifyWriter();
  NotifyWriter(const NotifyWriter&) = delete;
  NotifyWriter& operator=(const NotifyWriter&) = delete;

  /// Starts the document: encoding UTF-8.
  bool begin();
  bool start(const char* name);
  bool end();
  bool text(const std::string& text);
  /// An element with a text; an empty text gives an empty element.
  bool element(const char* name, const std::string& text);
  bool element(const char* name, int number);
  /// Closes what is open and ends the document.
  bool finish();
  /// The finished document, NUL-terminated; `length` counts the NUL.
  std::unique_ptr<char[]> release(int& length);

  /// The number of the last step, from 1.
  int step() const { return step_; }

 private:
  /// Ends a step.
  bool did(bool done);

  const std::size_t limit_;
  int step_ = 0;
  bool failed_ = false;
  _xmlBuffer* buffer_ = nullptr;
  _xmlTextWriter* writer_ = nullptr;
};
