#include "platform/rvx/SmControl.h"

#include <limits>

#include "platform/kor/TextForm.h"

namespace Rvx {

std::string SmControl::text() const {
  return fmt::format("(taskName={}, priority={}, mode={})", taskName, priority, static_cast<int>(mode));
}

void SmControl::textIs(std::string_view text) {
  std::string_view rest = text;
  Kor::desAttrPre(rest, "taskName", Kor::AttrPlace::first);
  size_t comma = rest.find(',');
  if (comma == std::string_view::npos) {
    throw Kor::ParseException(fmt::format("found \"{}\", expected \",\" after the task name", text));
  }
  std::string newTaskName(rest.substr(0, comma));
  rest.remove_prefix(comma);
  Kor::desAttrPost(rest, Kor::AttrPlace::first);
  Kor::desAttrPre(rest, "priority", Kor::AttrPlace::inner);
  uint32_t newPriority = Kor::readU32(rest);
  Kor::desAttrPost(rest, Kor::AttrPlace::inner);
  Kor::desAttrPre(rest, "mode", Kor::AttrPlace::last);
  uint32_t newMode = Kor::readU32(rest);
  Kor::desAttrPost(rest, Kor::AttrPlace::last);
  if (newPriority > std::numeric_limits<Vem::TaskPriority>::max() ||
      newMode > static_cast<uint32_t>(Mode::asynchronous)) {
    throw Kor::ParseException(
        fmt::format("found \"{}\", expected a priority of 0 to 255 and a mode of 0 to 2", text));
  }
  taskName = std::move(newTaskName);
  priority = static_cast<Vem::TaskPriority>(newPriority);
  mode = static_cast<Mode>(newMode);
}

}  // namespace Rvx
