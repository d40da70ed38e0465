#include "Assertions.h"
#include "IMeasurable.h"

namespace Lexarium {

IMeasurable::~IMeasurable() = default;

}  // namespace Lexarium
