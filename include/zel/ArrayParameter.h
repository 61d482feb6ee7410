#pragma once

#include <zel/Export.h>
#include <zel/Parameter.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>

namespace zelData {
class Buffer;
} // namespace zelData

namespace zel {

class GlobalResultBuffer;

/// A parameter for a buffer. Bound to another array parameter, it follows that one's buffer.
///
/// The parameter belongs to a task before it gets a buffer, which is verified.
/// @threads as Parameter
class ZEL_CORE_API ArrayParameter : public Parameter {
public:
    /// @param type  asks for its default format
    ArrayParameter(const Name& name,
                   const zelData::Type* type,
                   uint32 accessMode = zelData::AccessMode::READ,
                   const Path& path = Path());
    /// @param format  null for any
    ArrayParameter(const Name& name,
                   const zelData::Format* format,
                   uint32 accessMode = zelData::AccessMode::READ,
                   const Path& path = Path());
    /// The same with a buffer, which is bound as soon as the parameter belongs to a task: at the next rebind.
    ArrayParameter(const Name& name, const zelData::Type* type, uint32 accessMode, zelData::Buffer* buffer);
    ArrayParameter(const Name& name,
                   const zelData::Format* format,
                   uint32 accessMode,
                   zelData::Buffer* buffer);
    ~ArrayParameter() override;

    /// Reads also "localSize".
    void configure(TiXmlElement* element) override;
    void rebind() override;
    [[nodiscard]] zelData::Type* getType() override;
    [[nodiscard]] const zelData::Type* getType() const override;
    /// Whether a buffer is set.
    [[nodiscard]] bool isValid() const override;
    [[nodiscard]] bool hasGlobalResult() const override;
    /// Reads pointer and size of the buffer anew, and begins the global result.
    void update() override;
    /// Ends the global result, and announces that a written buffer has changed.
    void commit() override;
    void prepareGlobalResultSorting(size_t numJobs) override;

    [[nodiscard]] zelData::Buffer* getBuffer() const noexcept { return m_buffer.get(); }
    /// Null leaves the parameter without one.
    void setBuffer(zelData::Buffer* buffer);
    /// The elements, as of the last update.
    [[nodiscard]] const zelData::AbstractArray& getArray() const noexcept { return m_array; }
    /// How many elements a device with local memory keeps there for each group of work items; 0 for none. The
    /// CPU has no such memory.
    [[nodiscard]] size_t getLocalSize() const noexcept { return m_localSize; }
    void setLocalSize(size_t n) noexcept { m_localSize = n; }

    /// Lets jobs append to the buffer: see GlobalResult. The parameter must be a written one.
    /// @param mode  a setting of GlobalResult, or 0 for none
    void setGlobalResultMode(uint32 mode);
    /// Null unless a buffer is set and the mode asks for one.
    [[nodiscard]] GlobalResultBuffer* getGlobalResult() const noexcept { return m_globalResult.get(); }

    /// What the array parameter that this one is bound to calls when its own binding comes and goes.
    void parentBindCallback(Parameter* parent);
    void parentUnbindCallback(Parameter* parent);

    [[nodiscard]] static Model* ClassModel();
    /// Makes a parameter from an element of the tag "Parameter.Array".
    /// @return a new parameter without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static ArrayParameter* load(TiXmlElement* element, Device* device);

protected:
    void _bind(Object* object) override;

private:
    void leaveParent();
    void syncArray();
    void refreshGlobalResult();

    ref_ptr<zelData::Buffer> m_buffer;
    ref_ptr<zelData::Buffer> m_initialBuffer; // until there is a task
    zelData::AbstractArray m_array;
    size_t m_localSize = 0;
    ref_ptr<ArrayParameter> m_parent; // whose buffer this one follows
    uint64 m_parentBindId = 0;
    uint64 m_parentUnbindId = 0;
    uint32 m_globalResultMode = 0;
    ref_ptr<GlobalResultBuffer> m_globalResult;
};

} // namespace zel
