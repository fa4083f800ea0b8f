#include <Quarn/base/FileControl.h>

#include <fcntl.h>

namespace Quarn {

int cmd_F_OFD_SETLK() { return F_OFD_SETLK; }

} // namespace Quarn
