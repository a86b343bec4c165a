#include "platform/trace/RingLog.h"

#include "platform/mox/Exception.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <ostream>

namespace Trace {

namespace {

// Layout of a record in the ring: this header, then the encoded arguments.
// Records are packed with no padding and may wrap past the end of the ring,
// so they are always copied out with memcpy, never accessed in place.
struct Header {
   uint32_t size;          // header plus arguments
   uint32_t formatLength;
   int64_t timestamp;
   const Handle* handle;
   const char* format;
   internal::RenderFn render;
   int32_t level;
   uint32_t argBytes;
};

// Stands in for a record too large for the ring; its single argument is the
// size of the record it replaces.
std::string renderDropped( std::string_view format, const std::byte* args, size_t size ) {
   internal::ArgReader in( args, size );
   uint64_t dropped = 0;
   in.read( &dropped, sizeof dropped );
   return fmt::format( "[trace record of {} bytes dropped: larger than the ring] {}",
                       dropped, format );
}

class Ring {
 public:
   void resize( size_t bytes ) {
      std::lock_guard lock( mutex_ );
      buffer_.assign( bytes, std::byte{} );
      clearLocked();
   }
   size_t capacity() {
      std::lock_guard lock( mutex_ );
      return buffer_.size();
   }
   void clear() {
      std::lock_guard lock( mutex_ );
      clearLocked();
   }
   size_t count() {
      std::lock_guard lock( mutex_ );
      return count_;
   }

   void append( Header h, const char* args ) {
      uint64_t dropped = 0;
      std::lock_guard lock( mutex_ );
      if ( h.size > buffer_.size() ) {
         dropped = h.size;
         h.render = &renderDropped;
         h.argBytes = sizeof dropped;
         h.size = sizeof( Header ) + sizeof dropped;
         args = reinterpret_cast< const char* >( &dropped );
      }
      while ( buffer_.size() - used_ < h.size ) {
         dropOldest();
      }
      write( &h, sizeof h );
      write( args, h.argBytes );
      used_ += h.size;
      ++count_;
   }

   // The records, oldest first, copied out contiguously.
   std::vector< std::byte > snapshot() {
      std::lock_guard lock( mutex_ );
      std::vector< std::byte > out( used_ );
      if ( used_ > 0 ) {  // an empty vector's data() may be null
         read( head_, out.data(), used_ );
      }
      return out;
   }

 private:
   void clearLocked() {
      head_ = tail_ = used_ = count_ = 0;
   }
   void dropOldest() {
      Header h;
      read( head_, &h, sizeof h );
      head_ = ( head_ + h.size ) % buffer_.size();
      used_ -= h.size;
      --count_;
   }
   void write( const void* from, size_t n ) {
      size_t first = std::min( n, buffer_.size() - tail_ );
      std::memcpy( buffer_.data() + tail_, from, first );
      std::memcpy( buffer_.data(), static_cast< const char* >( from ) + first, n - first );
      tail_ = ( tail_ + n ) % buffer_.size();
   }
   void read( size_t at, void* to, size_t n ) const {
      size_t first = std::min( n, buffer_.size() - at );
      std::memcpy( to, buffer_.data() + at, first );
      std::memcpy( static_cast< char* >( to ) + first, buffer_.data(), n - first );
   }

   std::mutex mutex_;
   std::vector< std::byte > buffer_ = std::vector< std::byte >( RingLog::defaultCapacity );
   size_t head_ = 0;   // offset of the oldest record
   size_t tail_ = 0;   // where the next record goes
   size_t used_ = 0;   // bytes held by records
   size_t count_ = 0;  // records held
};

Ring& ring() {
   // Never destroyed: static destructors elsewhere may still trace.
   static Ring* r = new Ring;
   return *r;
}

}  // namespace

void RingLog::capacityIs( size_t bytes ) {
   if ( bytes < minCapacity ) {
      MOX_THROW( Mox::RangeException, "trace ring of {} bytes is below the minimum of {}",
                 bytes, minCapacity );
   }
   ring().resize( bytes );
}

size_t RingLog::capacity() {
   return ring().capacity();
}

void RingLog::clear() {
   ring().clear();
}

size_t RingLog::recordCount() {
   return ring().count();
}

void RingLog::appendRecord( const Handle& h, int level, int64_t timestamp,
                            std::string_view format, internal::RenderFn render,
                            const char* args, size_t argBytes ) {
   Header header{};
   // Sizes beyond 32 bits cannot fit any ring; saturate so the record is
   // replaced by the marker.
   size_t size = sizeof( Header ) + argBytes;
   header.size = static_cast< uint32_t >( std::min< size_t >( size, UINT32_MAX ) );
   header.formatLength = static_cast< uint32_t >( format.size() );
   header.timestamp = timestamp;
   header.handle = &h;
   header.format = format.data();
   header.render = render;
   header.level = level;
   header.argBytes = static_cast< uint32_t >( argBytes );
   ring().append( header, args );
}

void RingLog::visit( const std::function< void( const Record& ) >& fn ) {
   std::vector< std::byte > bytes = ring().snapshot();
   size_t at = 0;
   while ( at < bytes.size() ) {
      Header h;
      std::memcpy( &h, bytes.data() + at, sizeof h );
      std::string_view format( h.format, h.formatLength );
      std::string text;
      try {
         text = h.render( format, bytes.data() + at + sizeof h, h.argBytes );
      } catch ( const std::exception& e ) {
         // A dump is usually taken when things already went wrong; one bad
         // record must not hide the rest.
         text = fmt::format( "[trace record not formatted: {}] {}", e.what(), format );
      }
      fn( Record{ h.timestamp, h.handle->name(), h.level, text } );
      at += h.size;
   }
}

std::vector< std::string > RingLog::lines() {
   std::vector< std::string > out;
   visit( [ & ]( const Record& r ) { out.push_back( formatLine( r ) ); } );
   return out;
}

void RingLog::dump( std::ostream& os ) {
   visit( [ & ]( const Record& r ) { os << formatLine( r ) << '\n'; } );
}

}  // namespace Trace
