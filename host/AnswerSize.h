// Limits answers to the size that the manager states, and to what a datagram holds.
#pragma once

namespace Host {

// In force as long as it lives, for the agent of this process. A GETBULK is answered with as many varbinds as
// fit. Another request whose answer does not fit, or a GETBULK of which no varbind fits, is answered with
// tooBig.
//
// net-snmp 5.9 has three defects here. When the answer to an SNMPv3 GETBULK exceeds the manager's msgMaxSize,
// it encodes the same answer for ever, writes beyond a buffer, or fails. Its tooBig repeats the request,
// which may be too big, too. And it tries to send what no datagram holds.
class AnswerSize {
 public:
  AnswerSize();
  ~AnswerSize();
  AnswerSize(const AnswerSize&) = delete;
  AnswerSize& operator=(const AnswerSize&) = delete;
};

}  // namespace Host
