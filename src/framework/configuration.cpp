#include "framework/configuration.h"

#include <dirent.h>
#include <fcntl.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

#include "framework/bounds.h"
#include "framework/log.h"
#include "framework/xml_document.h"
#include "siplib/stack.h"
#include "siplib/text.h"

namespace framework {
namespace {

// --- Files

/// What tells one state of a file from the next.
struct Signature {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = -1;
  std::int64_t modified = 0;
  std::int64_t changed = 0;
  int fault = 0;  // errno, when there is no more to know

  bool operator==(const Signature&) const = default;
};

std::int64_t nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

Signature signatureOf(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim), nanoseconds(status.st_ctim), 0};
}

Signature faultSignature() {
  Signature signature;
  signature.fault = errno;
  return signature;
}

/// A descriptor held back for documents: a profile is read once and kept, so it must not come out empty because peers
/// have taken all others. Used with the cache locked, or before there are threads.
class Reserve {
 public:
  Reserve() { hold(); }
  /// Like open(), not waiting: what has the name of a document may be a pipe.
  int open(const std::string& path) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
    int descriptor = ::open(path.c_str(), kFlags);
    if (descriptor < 0 && errno == EMFILE && held_ >= 0) {
      ::close(std::exchange(held_, -1));
      descriptor = ::open(path.c_str(), kFlags);
    }
    return descriptor;
  }
  void close(int descriptor) {
    ::close(descriptor);
    hold();
  }

 private:
  void hold() {
    if (held_ < 0) held_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  }

  int held_ = -1;
};

Reserve& reserve() {
  static Reserve only;
  return only;
}

/// Reads a regular file of at most kMaxXml bytes. False with the reason.
bool readFile(const std::string& path, std::string& text, Signature& signature, std::string& error) {
  // One byte more than is allowed, so that XmlDocument sees the excess and refuses it.
  text.resize(kMaxXml + 1);
  const int descriptor = reserve().open(path);
  if (descriptor < 0) {
    signature = faultSignature();
    error = std::strerror(errno);
    return false;
  }
  struct stat status {};
  bool done = ::fstat(descriptor, &status) == 0;
  signature = done ? signatureOf(status) : faultSignature();
  if (!done) {
    error = std::strerror(errno);
  } else if (!S_ISREG(status.st_mode)) {
    error = "no regular file";
    done = false;
  } else {
    std::size_t length = 0;
    while (done && length < text.size()) {
      const ssize_t count = ::read(descriptor, text.data() + length, text.size() - length);
      if (count == 0) break;
      if (count > 0) {
        length += static_cast<std::size_t>(count);
      } else if (errno != EINTR) {
        error = std::strerror(errno);
        done = false;
      }
    }
    text.resize(length);
  }
  reserve().close(descriptor);
  return done;
}

bool loadDocument(const std::string& path, XmlDocument& document, Signature& signature, std::string& error) {
  std::string text;
  return readFile(path, text, signature, error) && document.parse(text.data(), text.size(), error);
}

// --- The kept documents

// A profile is read key after key, 34 times. More than a few are not kept: names of profiles come from peers.
constexpr std::size_t kKept = 4;

// A file changed less than this before it was read may change again within one tick of its time stamp, unseen.
constexpr std::int64_t kSettled = 50'000'000;

class DocumentCache {
 public:
  /// Null when there is no such file.
  const XmlDocument* get(const std::string& path) {
    struct stat status {};
    const Signature now = ::stat(path.c_str(), &status) == 0 ? signatureOf(status) : faultSignature();
    if (now.fault == ENOENT || now.fault == ENOTDIR) {
      std::erase_if(entries_, [&](const auto& entry) { return entry->path == path; });
      return nullptr;
    }
    auto at = std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) { return entry->path == path; });
    if (at == entries_.end()) {
      if (entries_.size() == kKept) entries_.pop_back();
      at = entries_.insert(entries_.begin(), std::make_unique<Entry>());
      (*at)->path = path;
    }
    std::rotate(entries_.begin(), at, at + 1);
    Entry& entry = *entries_.front();
    if (!entry.settled || entry.signature != now) load(entry);
    return &entry.document;
  }

  std::mutex mutex;

 private:
  struct Entry {
    std::string path;
    Signature signature;
    bool settled = false;
    XmlDocument document;  // empty when the file cannot be used
    std::string told;      // the fault that was logged
  };

  static void load(Entry& entry) {
    Signature signature;
    std::string error;
    const bool usable = loadDocument(entry.path, entry.document, signature, error);
    if (usable) {
      entry.told.clear();
    } else if (entry.told != error || entry.signature != signature) {
      IMS_log::loginfo(3, "get_xml_parameter", "%s: %s", entry.path.c_str(), error.c_str());
      entry.told = error;
    }
    timespec clock{};
    ::clock_gettime(CLOCK_REALTIME, &clock);
    entry.signature = signature;
    // What could not be used may be usable a moment later, when memory is free again.
    entry.settled = usable && nanoseconds(clock) - std::max(signature.modified, signature.changed) > kSettled;
  }

  std::vector<std::unique_ptr<Entry>> entries_;  // the last used first
};

DocumentCache& cache() {
  static DocumentCache* const only = new DocumentCache;
  return *only;
}

// --- Settings

/// What settings set.
struct Settings {
  SIPLIB_SIPStackConfig& stack;
  Bounds& bounds;
};

struct Setting {
  std::string_view name;
  long least;
  long most;
  void (*set)(Settings, long);
};

std::size_t count(long value) {
  return static_cast<std::size_t>(value);
}

// The largest sizes keep any one message within a few milliseconds of processor time.
constexpr std::array kSettings{
    Setting{"max-connections", 1, 65536, [](Settings s, long v) { s.stack.max_connections = count(v); }},
    Setting{"max-message-size", 1024, 65536, [](Settings s, long v) { s.stack.limits.max_message = count(v); }},
    Setting{"max-header-size", 512, 65536, [](Settings s, long v) { s.stack.limits.max_head = count(v); }},
    Setting{"connect-timeout-ms", 10, 600000,
            [](Settings s, long v) { s.stack.connect_timeout = std::chrono::milliseconds(v); }},
    Setting{"idle-timeout-s", 0, 604800, [](Settings s, long v) { s.stack.idle_timeout = std::chrono::seconds(v); }},
    Setting{"head-timeout-s", 1, 3600, [](Settings s, long v) { s.stack.head_timeout = std::chrono::seconds(v); }},
    Setting{"t1-ms", 10, 60000, [](Settings s, long v) { s.stack.t1 = std::chrono::milliseconds(v); }},
    Setting{"t2-ms", 10, 600000, [](Settings s, long v) { s.stack.t2 = std::chrono::milliseconds(v); }},
    Setting{"t4-ms", 10, 600000, [](Settings s, long v) { s.stack.t4 = std::chrono::milliseconds(v); }},
    Setting{"max-clients", 1, 65536, [](Settings s, long v) { s.bounds.clients = count(v); }},
    Setting{"max-profiles", 1, 65535, [](Settings s, long v) { s.bounds.profiles = count(v); }},
    Setting{"max-routing-entries", 1, 65536, [](Settings s, long v) { s.bounds.routing_entries = count(v); }},
    Setting{"max-routes", 1, 65536, [](Settings s, long v) { s.bounds.routes = count(v); }},
    Setting{"max-waiting-notifies", 1, 65536, [](Settings s, long v) { s.bounds.waiting_notifies = count(v); }},
    Setting{"max-challenges", 1, 1024, [](Settings s, long v) { s.bounds.challenges = count(v); }},
    Setting{"max-client-aors", 1, 65536, [](Settings s, long v) { s.bounds.client_aors = count(v); }},
    // The least of these two leave room for the entry of the registrar itself.
    Setting{"max-aors", 2, 1048576, [](Settings s, long v) { s.bounds.aors = count(v); }},
    Setting{"max-client-feature-tags", 1, 65536, [](Settings s, long v) { s.bounds.client_feature_tags = count(v); }},
    Setting{"max-feature-tags", 1, 16777216, [](Settings s, long v) { s.bounds.feature_tags = count(v); }},
    Setting{"max-feature-tag-size", 1, 65536, [](Settings s, long v) { s.bounds.feature_tag_size = count(v); }},
    Setting{"max-feature-tag-bytes", 1, 1073741824, [](Settings s, long v) { s.bounds.feature_tag_bytes = count(v); }},
    Setting{"max-client-text", 1, 65536, [](Settings s, long v) { s.bounds.client_text = count(v); }},
    Setting{"max-text-bytes", 1024, 1073741824, [](Settings s, long v) { s.bounds.text_bytes = count(v); }},
};
constexpr std::string_view kIoThread = "io-thread";
constexpr std::string_view kControlUids = "control-uids";

bool readNumber(const Setting& setting, std::string_view text, long& value) {
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
  return fault == std::errc() && end == text.data() + text.size() && value >= setting.least && value <= setting.most;
}

bool readYesNo(std::string_view text, bool& value) {
  value = text == "yes";
  return value || text == "no";
}

/// At least one number, with white space between them.
bool readUids(std::string_view text, std::vector<uid_t>& uids) {
  // (uid_t)-1 is no user's.
  constexpr std::uint32_t kMostUid = std::numeric_limits<std::uint32_t>::max() - 1;
  uids.clear();
  while (!(text = siplib::trim(text)).empty()) {
    const std::size_t end = std::min(text.find_first_of(" \t\r\n"), text.size());
    const auto uid = siplib::decimal(text.substr(0, end), kMostUid);
    if (!uid) {
      uids.clear();
      return false;
    }
    uids.push_back(*uid);
    text.remove_prefix(end);
  }
  return !uids.empty();
}

std::string wrongNumber(const Setting& setting, const std::string& value) {
  return "'" + value + "' for " + std::string(setting.name) + " is not a number from " + std::to_string(setting.least) +
         " to " + std::to_string(setting.most);
}

std::string wrongYesNo(const std::string& value) {
  return "'" + value + "' for " + std::string(kIoThread) + " is neither yes nor no";
}

std::string wrongUids(const std::string& value) {
  return "'" + value + "' for " + std::string(kControlUids) + " is not a list of user ids";
}

// --- Checking

std::string_view nameOf(const xmlNode& node) {
  return reinterpret_cast<const char*>(node.name);
}

/// As XmlDocument gives it.
std::string textOf(xmlNode& node) {
  xmlChar* const content = xmlNodeGetContent(&node);
  std::string text(siplib::trim(content == nullptr ? "" : reinterpret_cast<const char*>(content)));
  xmlFree(content);
  return text;
}

bool hasControlBytes(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

class Checker {
 public:
  std::vector<std::string> faults;

  void checkAll(const std::string& dir) {
    DIR* const top = ::opendir(dir.c_str());
    if (top == nullptr) {
      faults.push_back(dir + ": " + std::strerror(errno));
      return;
    }
    ::closedir(top);
    const std::string config = documentPath(dir, "config");
    if (::access(config.c_str(), F_OK) == 0) checkDocument(config, "sipstackinit");
    const std::string profiles = dir + "/profiles";
    DIR* const list = ::opendir(profiles.c_str());
    if (list == nullptr) {
      if (errno != ENOENT) faults.push_back(profiles + ": " + std::strerror(errno));
      return;
    }
    std::set<std::string> names;
    while (const dirent* const entry = ::readdir(list)) names.insert(entry->d_name);
    ::closedir(list);
    for (const std::string& name : names) {
      if (!name.ends_with(".xml")) continue;
      const std::string path = std::string(profiles).append("/").append(name);
      if (documentPath(dir, name.substr(0, name.size() - 4)) != path) {
        faults.push_back(path + ": no profile can have this name, so the file is never read");
      } else {
        checkDocument(path, "network-profile");
      }
    }
  }

 private:
  void fault(const std::string& path, const xmlNode& node, const std::string& why) {
    faults.push_back(path + ": line " + std::to_string(node.line) + ": " + why);
  }

  void checkDocument(const std::string& path, std::string_view root_name) {
    XmlDocument document;
    Signature signature;
    std::string error;
    if (!loadDocument(path, document, signature, error)) {
      faults.push_back(path + ": " + error);
      return;
    }
    xmlNode* const root = xmlDocGetRootElement(document.get());
    if (nameOf(*root) != root_name) {
      fault(path, *root,
            "the root element is '" + std::string(nameOf(*root)) + "', not '" + std::string(root_name) + "'");
    } else if (root_name == "sipstackinit") {
      bool seen = false;
      for (xmlNode* node = root->children; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE) continue;
        // Its text goes into a line of the capability file as it is.
        if (nameOf(*node) == "srctransport" && hasControlBytes(textOf(*node))) {
          fault(path, *node, "a line break or another control character in srctransport");
        }
        if (nameOf(*node) != "ue-proxy") continue;
        if (seen) fault(path, *node, "a second 'ue-proxy' element");
        seen = true;
        checkSettings(path, *node);
      }
    }
  }

  void checkSettings(const std::string& path, xmlNode& parent) {
    std::set<std::string_view> seen;
    for (xmlNode* node = parent.children; node != nullptr; node = node->next) {
      if (node->type != XML_ELEMENT_NODE) continue;
      const std::string_view name = nameOf(*node);
      const std::string value = textOf(*node);
      if (!seen.insert(name).second) fault(path, *node, "'" + std::string(name) + "' a second time; the first counts");
      const auto* const setting =
          std::find_if(kSettings.begin(), kSettings.end(), [&](const Setting& row) { return row.name == name; });
      long number = 0;
      bool flag = false;
      std::vector<uid_t> uids;
      if (setting != kSettings.end()) {
        if (!readNumber(*setting, value, number)) fault(path, *node, wrongNumber(*setting, value));
      } else if (name == kControlUids) {
        if (!readUids(value, uids)) fault(path, *node, wrongUids(value));
      } else if (name != kIoThread) {
        fault(path, *node, "unknown setting '" + std::string(name) + "'");
      } else if (!readYesNo(value, flag)) {
        fault(path, *node, wrongYesNo(value));
      }
    }
  }
};

}  // namespace

std::string documentPath(const std::string& dir, const std::string& document) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  };
  if (document.empty() || document.front() == '.' || !std::all_of(document.begin(), document.end(), allowed)) return {};
  return dir + (document == "config" ? "/" : "/profiles/") + document + ".xml";
}

bool readParameter(const std::string& path, const std::string& key, std::string& value) {
  value.clear();
  if (path.empty()) return false;
  const std::lock_guard lock(cache().mutex);
  const XmlDocument* const document = cache().get(path);
  return document != nullptr && document->first(key, value);
}

void readStackSettings(const std::string& path, const std::string& node, SIPLIB_SIPStackConfig& config, Bounds& bounds,
                       bool& io_thread) {
  std::string value;
  for (const Setting& setting : kSettings) {
    if (!readParameter(path, node + std::string(setting.name), value)) continue;
    long number = 0;
    if (readNumber(setting, value, number)) {
      setting.set({config, bounds}, number);
    } else {
      IMS_log::loginfo(3, "init_sipstack_info", "%s", wrongNumber(setting, value).c_str());
    }
  }
  if (readParameter(path, node + std::string(kControlUids), value)) {
    // A list that cannot be read keeps everybody out rather than letting everybody in.
    if (!readUids(value, config.control_uids.emplace())) {
      IMS_log::loginfo(3, "init_sipstack_info", "%s: nobody may control the proxy", wrongUids(value).c_str());
    }
  }
  if (!readParameter(path, node + std::string(kIoThread), value)) return;
  bool flag = false;
  if (readYesNo(value, flag)) {
    io_thread = flag;
  } else {
    IMS_log::loginfo(3, "init_sipstack_info", "%s", wrongYesNo(value).c_str());
  }
}

std::vector<std::string> checkConfiguration(const std::string& dir) {
  Checker checker;
  checker.checkAll(dir);
  return std::move(checker.faults);
}

}  // namespace framework
