// Keeps answers to managers within the size that the manager says it takes, and that a datagram holds.
#pragma once

namespace Host {

// From now on, for the agent of this process: a GETBULK is answered with as many varbinds as fit, and
// anything else, or a GETBULK of which not one fits, with tooBig.
//
// net-snmp 5.9 does so itself only where the size of an answer is its own to choose. An SNMPv3 GETBULK whose
// answer exceeds the msgMaxSize that the manager states makes it encode the same answer for ever, write
// beyond a buffer, or fail. Its tooBig repeats the request, which may be too big in turn, and what no
// datagram holds it tries to send all the same.
class AnswerSize {
 public:
  AnswerSize();
  ~AnswerSize();
  AnswerSize(const AnswerSize&) = delete;
  AnswerSize& operator=(const AnswerSize&) = delete;
};

}  // namespace Host
