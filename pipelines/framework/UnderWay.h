// Which keys are being worked on right now, further up the stack. A write publishes, and what its subscribers
// do may come back as an event for the very key that is being written: the nested event carries the newer
// state, and the outer one must stop.
#pragma once

namespace TrelSnmp::Agent {

template <class Key>
class UnderWay {
 public:
  // One event, for as long as it is handled. Overtakes those of the same key that are under way.
  class Event {
   public:
    Event(UnderWay& all, const Key& key) : all_(all), key_(key), outer_(all.innermost_) {
      for (Event* e = outer_; e != nullptr; e = e->outer_) e->overtaken_ = e->overtaken_ || e->key_ == key;
      all_.innermost_ = this;
    }
    ~Event() { all_.innermost_ = outer_; }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    bool overtaken() const { return overtaken_; }

   private:
    UnderWay& all_;
    const Key key_;
    Event* outer_;
    bool overtaken_ = false;
  };

 private:
  Event* innermost_ = nullptr;
};

}  // namespace TrelSnmp::Agent
