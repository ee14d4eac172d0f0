// What somebody else needs to find out what is wrong with this machine, without secrets.
#pragma once

#include <string>
#include <vector>

namespace TrelCtl {

struct SupportFile {
  std::string name;
  std::string content;  // where there is none, why not
};

// What the daemon at the socket says, what doctor finds, the configurations below the directory `config`, and
// the last lines of the logs. Blocks for some seconds when the daemon or the store does not answer.
std::vector<SupportFile> supportFiles(const std::string& socket, const std::string& config);

// Writes them as a tar archive that its owner alone may read. Throws Unusable if there is a file already.
void writeArchive(const std::string& path, const std::vector<SupportFile>& files);

}  // namespace TrelCtl
