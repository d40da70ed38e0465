#ifndef QUORVEX_IMEASURABLE_H
#define QUORVEX_IMEASURABLE_H

#include "TypeDefinitions.h"

namespace Lexarium {

// A record that knows how many bytes it occupies once serialised.
class QUORVEX_API IMeasurable {
public:
    virtual uint32 get_bytes_count() const = 0;
    virtual ~IMeasurable();
};

}  // namespace Lexarium

#endif
