// What both sides of the control protocol between trelsnmpd and trelctl have in common. host/README.md
// describes the protocol.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Control {

// The daemon refuses a longer request.
inline constexpr size_t kMaxRequestBytes = 64 * 1024;

// Operations, the member "op" of a request.
inline constexpr const char* kOpStatus = "status";
// The same, but for what stores have to be asked for: of members' leases it shows what is known.
inline constexpr const char* kOpReady = "ready";
inline constexpr const char* kOpTables = "tables";
inline constexpr const char* kOpAccept = "accept";
inline constexpr const char* kOpValues = "values";
inline constexpr const char* kOpLinks = "links";
inline constexpr const char* kOpTrace = "trace";
inline constexpr const char* kOpInspect = "inspect";
inline constexpr const char* kOpCall = "call";
inline constexpr std::array kOps = {kOpStatus, kOpReady, kOpTables,  kOpAccept, kOpValues,
                                    kOpLinks,  kOpTrace, kOpInspect, kOpCall};

// `trelsnmpd.sock` in the daemon's runtime directory; throws as Runtime::runtimeDirectory() does.
std::string defaultSocketPath();

// Cuts a stream of bytes into lines. Whoever appends stops at overflown().
class LineBuffer {
 public:
  explicit LineBuffer(size_t limit) : limit_(limit) {}
  void append(std::string_view bytes) { bytes_.append(bytes); }
  // The next whole line without its end ("\n" or "\r\n"); nothing when there is none yet.
  std::optional<std::string> takeLine();
  // Whether there is no whole line, but an unfinished one of more than `limit` bytes.
  bool overflown() const { return bytes_.size() > limit_ && bytes_.find('\n') == std::string::npos; }
  // Bytes held.
  size_t size() const { return bytes_.size(); }

 private:
  size_t limit_;
  std::string bytes_;
};

}  // namespace Control
