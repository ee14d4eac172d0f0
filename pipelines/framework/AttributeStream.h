// The stream of one attribute of an entity, a record that may be absent, as part of a child machine.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "pipelines/framework/ChildMachine.h"
#include "platform/kor/Notifier.h"

namespace TrelSnmp::Agent {

template <class Record>
class AttributeStream final : public ChildStream {
 public:
  using RecordPtr = Zavro::Ptr<const Record>;

  // How the attribute is reached. The entity that has it belongs to the machine.
  struct Attribute {
    std::string name;
    std::function<RecordPtr()> read;
    std::function<Kor::Subscription(std::function<void()>)> subscribe;
  };
  // record: null when it is absent.
  using Emit = std::function<void(const RecordPtr& record)>;

  AttributeStream(Attribute attribute, Emit emit)
      : attribute_(std::move(attribute)), emit_(std::move(emit)) {}

  void subscribe(ChildMachine& machine) override {
    machine_ = &machine;
    subscription_ = attribute_.subscribe([this] { handleReactor(); });
  }

  bool run(const std::string& machine, Zavro::Ptr<Vem::Task> task) override {
    ScanContext context{machine_->root(), machine, std::move(task), [] { return size_t{1}; }};
    return scan_.run(context, OneElement(), [this](int) {
      handle();
      return true;
    });
  }

  void deleteAll() override { emit_(nullptr); }

  void handlePending() override {
    if (std::exchange(pending_, false)) handle();
  }

  ScanState scanState() const override { return scan_.state(); }
  // One element has no key to stop at, and no counter.
  void describe(Kor::Type& /*type*/, size_t /*index*/) const override {}

 private:
  // What there is to scan.
  struct OneElement {
    struct Cursor {
      bool valid = true;
      explicit operator bool() const { return valid; }
      int key() const { return 0; }
      void next() { valid = false; }
    };
    Cursor begin() const { return {}; }
    Cursor from(int /*key*/) const { return {}; }
  };

  void handleReactor() {
    if (machine_->reacts()) {
      handle();
    } else {
      pending_ = true;
    }
  }

  void handle() {
    machine_->root().traceHandle().trace(8, "{}", attribute_.name);
    emit_(attribute_.read());
  }

  const Attribute attribute_;
  Emit emit_;
  ChildMachine* machine_ = nullptr;
  InputScan<int> scan_;
  bool pending_ = false;
  Kor::Subscription subscription_;
};

}  // namespace TrelSnmp::Agent
