// Lets a daemon that root started run as another user, as its unit does where there is systemd.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Runtime {

class OtherUser final {
 public:
  struct Directory {
    std::string path;
    mode_t mode;
  };

  // Becomes the user, with its groups and no others, and keeps of root's rights this capability (CAP_*) only.
  // Makes missing directories, for the user; their parents exist. Throws std::runtime_error: what is wrong
  // with the user, in one line. Requires: there are no other threads yet, and none exists when
  // forGood(Keep::capability) is called.
  OtherUser(const std::string& name, unsigned capability, const std::vector<Directory>& directories = {});

  enum class Keep { capability, nothing };
  // Until this is called, root's rights can be had back. Of every thread.
  void forGood(Keep keep) const;

 private:
  const unsigned capability_;
  uid_t user_ = 0;
};

}  // namespace Runtime
