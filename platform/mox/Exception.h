// Mox exceptions: the framework's error types.
//
// Every exception carries a message built from an fmt template and the
// source location (file, function, line) that raised it. what() is the
// message alone, so callers and tests can compare texts exactly.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace Mox {

struct SourceLocation {
   const char* file = "";
   const char* function = "";
   int line = 0;
};

class Exception : public std::runtime_error {
 public:
   Exception( SourceLocation where, std::string message )
      : std::runtime_error( std::move( message ) ), where_( where ) {}
   const char* file() const noexcept { return where_.file; }
   const char* function() const noexcept { return where_.function; }
   int line() const noexcept { return where_.line; }
   const SourceLocation& where() const noexcept { return where_; }

 private:
   SourceLocation where_;
};

// Bad text for a value, or a value outside its type's range.
class RangeException : public Exception {
 public:
   RangeException( SourceLocation where, std::string message,
                   std::string attribute = {} )
      : Exception( where, std::move( message ) ),
        attribute_( std::move( attribute ) ) {}
   // Name of the attribute being read when the error happened (outermost
   // reader), empty when the error was not raised under an attribute.
   const std::string& attribute() const noexcept { return attribute_; }

 private:
   std::string attribute_;
};

// A literal of a text form did not match.
class ParseException : public Exception {
   using Exception::Exception;
};

// An instantiating collection already holds a different object at a key.
class ReinstantiationException : public Exception {
   using Exception::Exception;
};

// The generic interface was asked for the hash of a type that has none.
class UnhashableTypeException : public Exception {
   using Exception::Exception;
};

// An entity created through a directory was given arguments it does not take.
class NewEntityArgumentsException : public Exception {
   using Exception::Exception;
};

}  // namespace Mox

#define MOX_HERE ( ::Mox::SourceLocation{ __FILE__, __func__, __LINE__ } )

// MOX_THROW(Mox::RangeException, "value {} out of range", v)
#define MOX_THROW( Type, ... ) throw Type( MOX_HERE, ::fmt::format( __VA_ARGS__ ) )
