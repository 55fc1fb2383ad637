#include "framework/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include "framework/options.h"
#include "siplib/text.h"

std::atomic<int> IMS_log::threshold_{4};

namespace {

// One line, newline included. A peer's largest header fits; what is longer is cut and ends in "...".
constexpr std::size_t kMaxLine = std::size_t{16} * 1024;

/// Puts a line together in a buffer of the caller's; never allocates, as it also reports that memory is out.
class Line {
 public:
  Line(char* buffer, std::size_t size) : buffer_(buffer), room_(size - kEnd) {}

  void add(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
      const siplib::Utf8 character = siplib::utf8At(text, i);
      if (character.size != 0 && !isControl(character.value)) {
        put(&text[i], character.size);
        i += character.size;
      } else {
        constexpr char kHex[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(text[i++]);
        const char escaped[] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
        put(escaped, sizeof escaped);
      }
    }
  }
  void cut() { cut_ = true; }
  std::string_view finish() {
    if (cut_) {
      std::memcpy(buffer_ + length_, "...", 3);
      length_ += 3;
    }
    buffer_[length_++] = '\n';
    return {buffer_, length_};
  }

 private:
  static constexpr std::size_t kEnd = 4;  // "...\n"

  // U+0080 to U+009F are control characters too: a terminal takes "\xc2\x9b" for the beginning of a command.
  static bool isControl(std::uint32_t character) { return character < 0x20 || (character >= 0x7f && character < 0xa0); }

  /// All or none of the bytes: a character or an escape is never cut in the middle.
  void put(const char* bytes, std::size_t size) {
    if (cut_ || length_ + size > room_) {
      cut_ = true;
      return;
    }
    std::memcpy(buffer_ + length_, bytes, size);
    length_ += size;
  }

  char* buffer_;
  std::size_t room_;
  std::size_t length_ = 0;
  bool cut_ = false;
};

/// Where lines go. The descriptor is often shared with other processes (standard error), so its O_NONBLOCK flag is not
/// ours to set; each kind has its own way of not waiting.
class Sink {
 public:
  Sink() { use(stderr); }

  void use(FILE* stream) {
    if (own_ >= 0) ::close(own_);
    own_ = descriptor_ = -1;
    rest_size_ = 0;
    dropped_ = 0;
    stream_ = stream;
    journal_ = std::getenv("JOURNAL_STREAM") != nullptr;
    kind_ = Kind::kNowhere;
    if (stream == nullptr) return;
    descriptor_ = ::fileno(stream);
    struct stat status {};
    if (descriptor_ < 0) {
      kind_ = Kind::kMemory;
    } else if (::fstat(descriptor_, &status) != 0) {
      kind_ = Kind::kNowhere;
    } else if (S_ISSOCK(status.st_mode)) {
      kind_ = Kind::kSocket;
    } else if (S_ISFIFO(status.st_mode) || ::isatty(descriptor_) == 1) {
      // A description of our own on the same pipe or terminal can be non-blocking without a change for others.
      const std::string path = "/proc/self/fd/" + std::to_string(descriptor_);
      own_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
      kind_ = own_ >= 0 ? Kind::kPlain : Kind::kPolled;
      if (own_ >= 0) descriptor_ = own_;
    } else {
      kind_ = Kind::kPlain;
    }
  }

  void setName(const char* name) { std::snprintf(name_, sizeof name_, "%s", name == nullptr ? "" : name); }

  void write(int level, const char* function, std::string_view text, bool cut) {
    if (kind_ == Kind::kNowhere) return;
    if (!flushRest()) {
      ++dropped_;
      return;
    }
    if (dropped_ != 0) {
      char buffer[512];
      char count[80];
      std::snprintf(count, sizeof count, "%zu log lines were dropped, their reader did not take them", dropped_);
      Line notice(buffer, sizeof buffer);
      head(notice, 3, "loginfo");
      notice.add(count);
      if (!emit(notice.finish())) {
        ++dropped_;
        return;
      }
      dropped_ = 0;
    }
    char buffer[kMaxLine];
    Line line(buffer, sizeof buffer);
    head(line, level, function);
    line.add(text);
    if (cut) line.cut();
    if (!emit(line.finish())) ++dropped_;
  }

  std::mutex mutex;

 private:
  enum class Kind {
    kNowhere,
    kMemory,  // a stream without descriptor
    kPlain,   // write() does not wait: a file, a device, or our own description of a pipe
    kPolled,  // a pipe that could not be opened again: asked before each piece
    kSocket,
  };

  void head(Line& line, int level, const char* function) const {
    char text[160];
    if (journal_) {
      std::snprintf(text, sizeof text, "<%d>", level <= 3 ? 3 : level == 4 ? 5 : 7);
    } else {
      timespec now{};
      ::clock_gettime(CLOCK_REALTIME, &now);
      tm utc{};
      ::gmtime_r(&now.tv_sec, &utc);
      char stamp[32];
      std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
      std::snprintf(text, sizeof text, "%s.%06ldZ %s[%d] %d ", stamp, now.tv_nsec / 1000, name_,
                    static_cast<int>(::getpid()), level);
    }
    line.add(text);
    line.add(function == nullptr ? "" : function);
    line.add(": ");
  }

  ssize_t once(const char* bytes, std::size_t size) {
    for (;;) {
      ssize_t taken = -1;
      if (kind_ == Kind::kMemory) {
        taken = static_cast<ssize_t>(std::fwrite(bytes, 1, size, stream_));
        std::fflush(stream_);
      } else if (kind_ == Kind::kSocket) {
        taken = ::send(descriptor_, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
      } else if (kind_ == Kind::kPolled) {
        // A pipe that polls writable has room for one page, so a piece of that size does not wait.
        pollfd ready{descriptor_, POLLOUT, 0};
        if (::poll(&ready, 1, 0) != 1) return -1;
        taken = ::write(descriptor_, bytes, std::min<std::size_t>(size, PIPE_BUF));
      } else {
        taken = ::write(descriptor_, bytes, size);
      }
      if (taken >= 0 || errno != EINTR) return taken;
    }
  }

  /// False when nothing of it was taken. What is taken in part is finished before any other line.
  bool emit(std::string_view line) {
    const ssize_t taken = once(line.data(), line.size());
    if (taken <= 0) return false;
    rest_at_ = 0;
    rest_size_ = line.size() - static_cast<std::size_t>(taken);
    if (rest_size_ != 0) {
      std::memcpy(rest_, line.data() + taken, rest_size_);
      flushRest();
    }
    return true;
  }

  bool flushRest() {
    while (rest_size_ != 0) {
      const ssize_t taken = once(rest_ + rest_at_, rest_size_);
      if (taken <= 0) {
        // A later reader of the same pipe begins with a whole line.
        if (taken < 0 && errno == EPIPE) rest_size_ = 0;
        return false;
      }
      rest_at_ += static_cast<std::size_t>(taken);
      rest_size_ -= static_cast<std::size_t>(taken);
    }
    return true;
  }

  FILE* stream_ = nullptr;
  int descriptor_ = -1;
  int own_ = -1;
  Kind kind_ = Kind::kNowhere;
  bool journal_ = false;
  char name_[64] = "ue-proxy";
  std::size_t dropped_ = 0;
  std::size_t rest_at_ = 0;
  std::size_t rest_size_ = 0;
  char rest_[kMaxLine] = {};
};

/// Never destroyed: lines may come from other objects' ends.
Sink& sink() {
  static Sink* const only = new Sink;
  return *only;
}

// Apart from loginfo, so that only a line that is written pays for its room: the stack is probed page by page.
[[gnu::noinline]] __attribute__((format(printf, 3, 0))) void put(int level, const char* function, const char* format,
                                                                 va_list arguments) {
  const int error = errno;
  char text[kMaxLine];
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  const bool cut = length >= static_cast<int>(sizeof text);
  const std::string_view whole =
      length < 0 ? std::string_view(format)
                 : std::string_view(text, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof text - 1));
  {
    Sink& out = sink();
    const std::lock_guard lock(out.mutex);
    out.write(level, function, whole, cut);
  }
  errno = error;
}

}  // namespace

void IMS_log::loginfo(int level, const char* function, const char* format, ...) {
  if (!enabled(level)) return;
  va_list arguments;
  va_start(arguments, format);
  put(level, function, format, arguments);
  va_end(arguments);
}

void IMS_log::log_to_file(FILE* stream) {
  ::signal(SIGPIPE, SIG_IGN);
  Sink& out = sink();
  const std::lock_guard lock(out.mutex);
  out.use(stream);
}

void IMS_log::set_progname(const char* name) {
  Sink& out = sink();
  const std::lock_guard lock(out.mutex);
  out.setName(name);
}

void IMS_log::set_options(int argc, char** argv) {
  framework::Options options;
  std::string error;
  if (framework::parseOptions(argc, argv, options, error) && options.log_level) set_level(*options.log_level);
}
