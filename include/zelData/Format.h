#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Model.h>
#include <zel/Name.h>
#include <zelData/FormatPrimitives.h>
#include <zelData/Transform.h>

#include <atomic>
#include <memory>

namespace zelData {

class Type;
class Value;

/// The layout of one kind of element in memory: its size, how to construct, copy, destroy, permute and
/// byte-swap it, and how to turn it into other formats. Written as type, colon, format: "Real:64bit".
///
/// Whoever holds elements goes through these operations and never knows the class of the element; each works
/// on a whole run of elements at one virtual call. A format is owned by its type.
///
/// The base class implements none of the operations on elements: each ends the process until it is
/// overridden.
/// @threads concurrent reads, once the format is set up
class ZEL_CORE_API Format : public zel::Model {
public:
    /// @param implementationName  the class of the elements; empty for formats without one
    /// @param size                of an element, in bytes, as stored in a column
    /// @param swapFunction        reverses the byte order of elements; null where that means nothing
    /// @param copyFunction        copies elements: the transformer from the format to itself
    Format(const zel::Name& name,
           const zel::Name& implementationName,
           zel::uint64 size,
           TransformFunction swapFunction,
           TransformFunction copyFunction);
    ~Format() override;

    /// Copy-constructs one element in raw memory.
    virtual void initializeElement(void* target, const void* source) const;
    /// Copy-constructs n elements in raw memory, all from the one source element.
    virtual void initializeElements(void* target, const void* source, zel::uint64 n) const;
    /// Constructs one element in raw memory: zero, null or empty.
    virtual void constructElement(void* target) const;
    virtual void constructElements(void* target, zel::uint64 n) const;
    virtual void destroyElement(void* element) const;
    virtual void destroyElements(void* elements, zel::uint64 n) const;
    /// Assigns one element.
    virtual void copyElement(void* target, const void* source) const;
    /// Assigns n elements, element i from source element i, in ascending order.
    virtual void copyElements(void* target, const void* source, zel::uint64 n) const;
    /// Assigns one element; the source may lose its content.
    virtual void moveElement(void* target, void* source) const;
    virtual void moveElements(void* target, void* source, zel::uint64 n) const;
    /// target[i] = source[permutation[i]] for each i below n. Target and source are disjoint.
    virtual void
    permuteElements(void* target, void* source, const zel::uint32* permutation, zel::uint64 n) const;
    /// Exchanges two elements.
    virtual void swapElements(void* a, void* b) const;

    /// Reverses the byte order of n elements; target and source may be the same.
    /// @pre the format has a swap function, which is verified
    void swapByteOrder(void* target, const void* source, zel::uint64 n) const;

    /// The type that owns the format; null until it is added to one.
    [[nodiscard]] Type* getType() const noexcept { return m_type; }
    void setType(Type* type) noexcept { m_type = type; }
    /// Of an element, in bytes.
    [[nodiscard]] zel::uint64 getSize() const noexcept { return m_size; }
    /// Null if byte order means nothing to the elements.
    [[nodiscard]] TransformFunction getSwapFunction() const noexcept { return m_swapFunction; }
    /// Whether the elements are plain bytes: numbers and what is made of them, and opaque blocks.
    [[nodiscard]] bool hasPlainElements() const noexcept;
    /// "type:format"; the name alone for a format without a type.
    [[nodiscard]] zel::String fullName() const;

    /// The value, named "default", that a fresh value or attribute of this format copies. Made at the first
    /// call and kept until cleanup(); never to be changed.
    /// @threads any thread
    [[nodiscard]] Value* getDefaultValue() const;
    /// Lets go of the default value, which keeps the format alive till then. The registry does this for the
    /// formats of its types.
    void cleanup();

    /// Marks what takes its format from the other side of a binding.
    [[nodiscard]] static Format* Auto();
    /// The format without content.
    [[nodiscard]] static Format* Void();
    [[nodiscard]] static zel::Model* ClassModel();

    /// Tells that an element of the format consists of `stride` values of T, the last `padding` of which mean
    /// nothing. A programming error ends the process: a second call for a format, a size that differs, and an
    /// element that is all padding.
    template <detail::Primitive T>
    static void registerFormatPrimitives(const Format* format, unsigned int stride, unsigned int padding) {
        registerFormatCaller(
            format, std::make_unique<FormatCallerT<T>>(stride, padding), sizeof(T), stride, padding);
    }
    /// Calls the callback for the primitive of the format.
    /// @return false if the format has no primitive, which is a warning, or the list no callback for it
    static bool callFormatPrimitive(const Format* format, const CallbackList& callbackList);
    /// Forgets what all formats consist of; for shutdown.
    static void forceClearTypeCallerTable();

private:
    friend ZEL_CORE_API void registerTransformer(TransformFunction, const Format*, Format*);
    friend ZEL_CORE_API TransformFunction getTransformer(const Format*, const Format*);

    static void registerFormatCaller(const Format* format,
                                     std::unique_ptr<FormatCaller> caller,
                                     zel::uint64 primitiveSize,
                                     unsigned int stride,
                                     unsigned int padding);

    // The implementation name, which belongs between size and swap function, is that of the model.
    Type* m_type = nullptr;
    zel::uint64 m_size;
    TransformFunction m_swapFunction;
    mutable std::atomic<Value*> m_defaultValue{nullptr}; // counted; made under the type-system mutex
    zel::HashTable<const Format*, TransformFunction> m_transformerTable;
};

} // namespace zelData
