#include <Quarn/scheduler/TaskKey.h>

#include <fmt/format.h>

namespace Quarn {

String TaskKey::toStrep() const { return String( fmt::format( "@{}", value_ ) ); }

} // namespace Quarn
