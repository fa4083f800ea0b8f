#include <OruQuarn/TaskWalkCollectionProgress.h>

#include <fmt/format.h>

#include <ostream>

namespace OruQuarn {

std::string TaskWalkCollectionProgress::toStdString() const {
   char const* const state = onInit ? "onInit" : yielding ? "yielding" : "finished";
   return fmt::format( "{}, processed {}", state, processed );
}

Oru::String TaskWalkCollectionProgress::toString() const { return toStdString(); }

std::ostream& operator<<( std::ostream& out, const TaskWalkCollectionProgress& progress ) {
   return out << progress.toStdString();
}

} // namespace OruQuarn
