// The simplest kind of pipeline, to derive from or to use as it is. A directory has an entity for each
// member, named by the member's id, and each entity has a collection of records. Each record is a row of one
// table, keyed by the member's id and the record's key.
//
// What happens to rows:
//   a record appears in a member's collection     its row is inserted
//   it is replaced                                the row is deleted and inserted with the new record
//   the same record is set again                  nothing
//   it vanishes from the collection               its row is deleted
//   a member's entity vanishes                    the rows of all its records are deleted
//   the entity is replaced                        the same, and the new entity's rows are inserted
//   an entity of another type                     is traced and counts as absent
//
// Two directory keys may spell the same member ("3" and "03"): the later event on a row wins.
#pragma once

#include "pipelines/framework/CollectionStream.h"
#include "pipelines/framework/DirMachine.h"
#include "pipelines/framework/Output.h"
#include "platform/trel/MemberId.h"

namespace TrelSnmp::Agent {

// What describes the rest:
//   Entity, Rows                       the type of a member's entity, and access to the table (Output.h)
//   kTrace                             the trace handle, named after the pipeline
//   kDirectory, kCollection, kStream   names for type information
//   kStatement                         the trace of a record, with its directory key, key and value
//   records(entity)                    the collection
//   rowOf(record)                      optional: the value for Rows, if it is not the record itself
//   arguments()                        optional: further entities that are read
template <class What>
class MemberTablePipeline : public Pipeline {
 public:
  using Entity = typename What::Entity;
  using Rows = typename What::Rows;
  using Records = std::remove_cvref_t<decltype(What::records(std::declval<const Entity&>()))>;
  using RecordKey = typename Records::Key;
  using Record = typename Records::Value;

  // None of the pointers may be null: the process ends otherwise.
  MemberTablePipeline(Zavro::Ptr<const Kor::Dir> directory, Zavro::Ptr<TrelMib> trelMib,
                      const Rvx::SmControl& control, What what = {})
      : Pipeline(What::kTrace, std::move(trelMib), control, {What::kStream}),
        directory_(std::move(directory)),
        what_(std::move(what)),
        output_(*this, {kStreamNumber}) {
    start();
  }
  ~MemberTablePipeline() override { stop(); }

  const Zavro::Ptr<const Kor::Dir>& directory() const { return directory_; }
  const What& what() const { return what_; }
  const Output<Rows>& output() const { return output_; }

  // One stream element: a record of the member, or null when it no longer has one. Does nothing before the
  // initial scan is done.
  void eventToStream(const Kor::String& dirKey, const RecordKey& recordKey, const Record& recordOpt) {
    if (!initialScanDone()) return;
    if (What::kTrace.enabled(7)) {
      What::kTrace.trace(7, What::kStatement, dirKey, recordKey, Kor::optText(recordOpt));
    }
    typename Rows::Table::Key key(Trel::MemberId::fromString(dirKey).id(), numberOf(recordKey));
    if (recordOpt) {
      output_.write(key, rowOf(recordOpt));
    } else {
      output_.del(key);
    }
  }
  void handleOutputInputReady() { output_.handleInputReady(); }

 private:
  static constexpr size_t kStreamNumber = 0;

  static uint32_t numberOf(const RecordKey& key) {
    if constexpr (std::is_same_v<RecordKey, Trel::MemberId>) {
      return key.id();
    } else {
      return key;
    }
  }

  decltype(auto) rowOf(const Record& record) const {
    if constexpr (requires { what_.rowOf(record); }) {
      return what_.rowOf(record);
    } else {
      return (record);
    }
  }

  std::vector<PointerArgument> pointerArguments() const override {
    std::vector<PointerArgument> all = {{What::kDirectory, directory_.get()}};
    if constexpr (requires { what_.arguments(); }) {
      for (const PointerArgument& argument : what_.arguments()) all.push_back(argument);
    }
    all.push_back({"trelMib", trelMib().get()});
    return all;
  }

  void createMachines() override {
    auto statement = directoryStatement<Entity>(What::kDirectory);
    statement.streams = {{kStreamNumber, {}}};
    statement.childInputs = [this](const Kor::String& dirKey, const Entity& member) {
      EntityMachine::Inputs inputs;
      inputs.push_back(recordsInput(kStreamNumber, What::kCollection, What::records(member),
                                    [this, dirKey](const RecordKey& key, const Record& record) {
                                      eventToStream(dirKey, key, record);
                                    }));
      return inputs;
    };
    addMachine(Zavro::makePtr<DirectoryMachine<Entity>>(*this, directory_, directory_->entities(),
                                                        std::move(statement)));
  }

  const Zavro::Ptr<const Kor::Dir> directory_;
  const What what_;
  Output<Rows> output_;
};

}  // namespace TrelSnmp::Agent
