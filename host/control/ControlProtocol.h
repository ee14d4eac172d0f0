// The control protocol between trelsnmpd and trelctl: what both sides must agree on. host/README.md describes
// it in full.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Control {

// A request is one JSON object on one line; the daemon refuses a longer one.
inline constexpr size_t kMaxRequestBytes = 64 * 1024;

// Operations, the member "op" of a request.
inline constexpr const char* kOpStatus = "status";
inline constexpr const char* kOpTables = "tables";

// `trelsnmpd.sock` in the daemon's runtime directory; throws as Runtime::runtimeDirectory() does.
std::string defaultSocketPath();

// Cuts a stream of bytes into lines. Holds at most one unfinished line of at most `limit` bytes.
class LineBuffer {
 public:
  explicit LineBuffer(size_t limit) : limit_(limit) {}
  void append(std::string_view bytes) { bytes_.append(bytes); }
  // The next whole line without its end ("\n" or "\r\n"), or nothing when there is none yet.
  std::optional<std::string> takeLine();
  // The unfinished line is longer than the limit.
  bool overflown() const { return bytes_.size() > limit_ && bytes_.find('\n') == std::string::npos; }
  // Bytes held.
  size_t size() const { return bytes_.size(); }

 private:
  size_t limit_;
  std::string bytes_;
};

}  // namespace Control
