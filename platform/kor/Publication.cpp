#include "platform/kor/Publication.h"

namespace Kor {

bool Publication::underWay_ = false;

}  // namespace Kor
