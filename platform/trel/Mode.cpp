#include "platform/trel/Mode.h"

namespace Trel {
namespace {

bool mode = true;

}  // namespace

bool trelMode() { return mode; }
void trelModeIs(bool on) { mode = on; }

}  // namespace Trel
