// Fable::CorruptionDetectedException: raised by the shared-table service when
// a segment it maps does not hold what its layout promises (bad magic, wrong
// record layout, an index out of bounds, a probe that never ends). The message
// names the table's path and what was wrong.
#pragma once

#include "platform/mox/Exception.h"

namespace Fable {

class CorruptionDetectedException : public Mox::Exception {
 public:
   using Mox::Exception::Exception;
};

}  // namespace Fable
