// Mox type registry and generic (reflective) interface.
//
// Each registered type has a fully qualified name, a base type, and a table
// of attributes with ids assigned in declaration order after the base's
// (the first own id of a PtrInterface-derived type is 130, of an entity
// type 258, of a value type 2). The generic interface reads, writes,
// deletes, counts, tests and invokes attributes by id, iterates collection
// attributes, constructs objects from argument lists and hashes values.
//
// Types are built once, on first use, from the class's static
// moxDescribe(TypeBuilder<T>&), and are immutable afterwards, so lookups
// take no lock. Modules list types and are registered from static
// initialisers when their library loads.
#pragma once

#include "platform/mox/GenericValue.h"
#include "platform/mox/PtrInterface.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

// Operation codes of genericIfAttributeOp.
enum GenericOp : int {
   genericOpGet = 0,
   genericOpSet = 1,
   genericOpDel = 2,
   genericOpCount = 3,
   genericOpCountAlt = 4,   // answers 0 on collections; kept for old callers
   genericOpExists = 5,
   genericOpInvoke = 10,
};

// Results of genericIfAttributeOp.
enum GenericResult : int {
   genericDone = 0,
   genericNotAllowed = 1,
   genericNoSuchAttribute = 2,
};

enum class AttrKind : uint8_t {
   input,        // watched entity, held by a reactor; get only
   output,       // written entity; get only
   handler,      // invocable operation
   scalar,       // plain value, get and maybe set
   collection,   // keyed collection
   reserved,     // declared for its id; no operation supported
};

// Cursor over one collection attribute of one object.
class GenericIterator {
 public:
   virtual ~GenericIterator() = default;
   virtual bool iterNonnull() const = 0;
   virtual void iterInc() = 0;
   virtual void iterKey( GenericValue& result ) const = 0;
   virtual void iterObj( GenericValue& result ) const = 0;
   // Removes the entry under the cursor; the cursor then stands on the next.
   virtual void iterDel() = 0;
};

struct Attribute {
   using OpFn = std::function< int( GenericValue& result, void* object, int op,
                                    const void* arg, const void* arg2 ) >;
   using IterFn = std::function< std::unique_ptr< GenericIterator >( void* object ) >;

   std::string name;
   AttributeId id = 0;
   AttrKind kind = AttrKind::reserved;
   OpFn op;
   IterFn iterator;
};

class Module;

class Type {
 public:
   using CtorFn = std::function< void( GenericValue& result, const void* const* args ) >;
   using HashFn = std::function< uint32_t( const void* value ) >;
   using CastFn = std::function< void*( PtrInterface* ) >;
   using DefaultQueryFn = std::function< bool( const void* value ) >;

   Type( const Type& ) = delete;
   Type& operator=( const Type& ) = delete;
   virtual ~Type() = default;

   const std::string& name() const { return name_; }
   const Type* base() const { return base_; }
   bool isValueType() const { return valueType_; }
   AttributeId firstOwnId() const { return firstOwnId_; }
   // The id the first attribute of a type derived from this one gets.
   AttributeId nextId() const { return nextId_; }
   const Module* module() const { return module_; }

   // Own attributes in declaration order.
   const std::vector< Attribute >& attributes() const { return attrs_; }
   // Own attributes sorted by name.
   const std::vector< const Attribute* >& attributesByName() const { return byName_; }
   // Looks in this type, then its bases.
   const Attribute* attribute( AttributeId id ) const;
   const Attribute* attribute( std::string_view name ) const;
   // 0 when the type has no attribute of that name.
   AttributeId attributeId( std::string_view name ) const;

   // `object` points at the T itself (for framework objects use the
   // overload taking a PtrInterface*, which casts to the right subobject).
   int genericIfAttributeOp( GenericValue& result, void* object, AttributeId attr,
                             int op, const void* arg = nullptr,
                             const void* arg2 = nullptr ) const;
   int genericIfAttributeOp( GenericValue& result, PtrInterface* object,
                             AttributeId attr, int op, const void* arg = nullptr,
                             const void* arg2 = nullptr ) const;
   // Null when the attribute is no collection of this type.
   std::unique_ptr< GenericIterator > genericIfIterator( void* object,
                                                         AttributeId attr ) const;
   std::unique_ptr< GenericIterator > genericIfIterator( PtrInterface* object,
                                                         AttributeId attr ) const;
   // `args` points at each constructor argument in declaration order.
   void genericIfConstructFromCtorArgs( GenericValue& result,
                                        const void* const* args ) const;
   bool constructible() const { return static_cast< bool >( ctor_ ); }
   uint32_t genericIfHash( const void* value ) const;
   bool hashable() const { return static_cast< bool >( hash_ ); }

   void* castFrom( PtrInterface* object ) const;

 protected:
   Type( std::string name, const Type* base, AttributeId firstOwnId, bool valueType );

 private:
   template< class T >
   friend class TypeBuilder;
   friend class Module;
   friend void moxModuleIs( Module* );


 protected:
   void finish();

   std::string name_;
   const Type* base_;
   AttributeId firstOwnId_;
   AttributeId nextId_;
   bool valueType_;
   std::vector< Attribute > attrs_;
   std::vector< const Attribute* > byName_;
   CtorFn ctor_;
   HashFn hash_;
   CastFn cast_;
   std::function< PtrInterface*( void* ) > up_;
   DefaultQueryFn defaultQuery_;
   mutable const Module* module_ = nullptr;
};

template< class T >
class TypeImpl;

// A library's module: the types it registers.
class Module {
 public:
   Module( std::string name, std::vector< const Type* > types );
   const std::string& name() const { return name_; }
   const std::vector< const Type* >& types() const { return types_; }
   const Type* type( std::string_view name ) const;

 private:
   std::string name_;
   std::vector< const Type* > types_;
};

// Registers `module` (idempotent); its types become reachable by name.
void moxModuleIs( Module* module );
const Module* moxModule( std::string_view name );
std::vector< const Module* > moxModules();
const Type* moxTypeByName( std::string_view name );

}  // namespace Mox

#include "platform/mox/TypeBuilder.h"
