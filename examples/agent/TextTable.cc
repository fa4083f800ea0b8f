#include "examples/agent/TextTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <utility>

namespace HostAgent {

void TextTable::columnAdd( std::string heading, Align align ) {
   columns_.push_back( { align, heading.size() } );
   rows_.front().push_back( std::move( heading ) );
}

void TextTable::rowAdd( std::vector<std::string> cells ) {
   cells.resize( columns_.size() );
   for( std::size_t i = 0; i < cells.size(); ++i ) {
      columns_[ i ].width = std::max( columns_[ i ].width, cells[ i ].size() );
   }
   rows_.push_back( std::move( cells ) );
}

void TextTable::render( std::ostream& out ) const {
   for( const auto& row : rows_ ) {
      std::string line;
      for( std::size_t i = 0; i < row.size(); ++i ) {
         line += "  ";
         line += columns_[ i ].align == Align::left
                       ? fmt::format( "{:<{}}", row[ i ], columns_[ i ].width )
                       : fmt::format( "{:>{}}", row[ i ], columns_[ i ].width );
      }
      line.erase( line.find_last_not_of( ' ' ) + 1 );
      out << line << '\n';
   }
}

} // namespace HostAgent
