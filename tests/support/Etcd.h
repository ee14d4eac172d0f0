// etcd servers run by a test: one, or a cluster of several, on free ports of 127.0.0.1, with their data in a
// directory of the test's own. They are killed when the object goes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/Relay.h"
#include "tests/support/TempDir.h"

namespace Support {

struct EtcdOptions {
  size_t nodes = 1;
  bool isolable = false;      // the nodes speak to each other through relays, for isolate()
  Argv arguments = {};        // for every node, after all others
  std::string caFile = {};    // with these three clients speak TLS, and must show a certificate of the CA
  std::string certFile = {};  // the servers' and etcdctl's certificate
  std::string keyFile = {};
};

class EtcdCluster final {
 public:
  // Starts all nodes and waits until each answers. Throws std::runtime_error when one does not.
  explicit EtcdCluster(EtcdOptions options = {});
  EtcdCluster(const EtcdCluster&) = delete;
  EtcdCluster& operator=(const EtcdCluster&) = delete;

  size_t size() const { return nodes_.size(); }
  // "127.0.0.1:port", where clients are served; the same for as long as the object lives.
  std::string endpoint(size_t node = 0) const;
  std::vector<std::string> endpoints() const;
  // All of them, as command lines take them: "127.0.0.1:1,127.0.0.1:2".
  std::string endpointList() const;
  // The node's process; null: it was killed or stopped.
  Process* process(size_t node) { return nodes_[node].process.get(); }

  // SIGKILL; with SIGTERM the node hands over what it leads first.
  void end(size_t node, int signal = SIGKILL);
  // Starts an ended node with the data it had. start() waits until it answers; launch() does not wait.
  void start(size_t node);
  void launch(size_t node);
  // Waits until the node answers. Throws std::runtime_error with its log when it does not.
  void awaitHealthy(size_t node);
  // The sum of the node's metrics whose lines begin with this text; 0: there is none.
  double metric(const std::string& begin, size_t node = 0) const;
  // The node that leads; throws std::runtime_error when there is none for too long.
  size_t leader() const;
  // Makes another node lead.
  void leaderIs(size_t node);

  // Cuts the node off from all others, but not from its clients; rejoin() mends it. Requires: isolable, and
  // one node at a time.
  void isolate(size_t node);
  void rejoin();

  // Ends all nodes and starts them as a new cluster: an empty one, or with the keys and the revision of a
  // snapshot that etcdctl saved. The cluster has another id, or the one that it had.
  void restartEmpty();
  enum class Id : uint8_t { another, same };
  void restartFrom(const std::string& snapshot, Id id = Id::another);
  // Writes such a snapshot.
  void saveSnapshot(const std::string& file) const;

  // etcdctl for this cluster, at all endpoints that are not ended; with `user` as "name:password". Throws
  // std::runtime_error when it fails.
  std::string ctl(const Argv& arguments, const std::string& user = {}) const;
  // The same without a judgement.
  Result tryCtl(const Argv& arguments, const std::string& user = {}) const;

 private:
  struct Node {
    std::string name;
    uint16_t clientPort;
    uint16_t peerPort;
    std::unique_ptr<Relay> relay;  // for those that want to speak to it, when isolable
    std::unique_ptr<Process> process;

    uint16_t advertisedPeerPort() const { return relay ? relay->port() : peerPort; }
  };

  std::string dataDir(size_t node) const;
  std::string initialCluster() const;
  // A line of what etcdctl says of a node's status; empty when it does not answer.
  std::string statusField(size_t node, const std::string& name) const;
  Argv ctlCommand(const std::string& endpoints) const;
  void clear(Id id);

  EtcdOptions options_;
  TempDir directory_;
  unsigned generation_ = 0;  // of data
  unsigned token_ = 0;       // of the cluster: its id follows from it, and from the peers' addresses
  std::vector<Node> nodes_;
};

}  // namespace Support
