#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zelData/GeneratedEntity.h>

#include <atomic>

namespace zel {

class ThreadTimelineEntryPtr;

/// A record of one job that a thread has executed. Times are in milliseconds. The entity
/// "ThreadTimelineEntry".
/// @threads as zelData::EntityModel
class ZEL_CORE_API ThreadTimelineEntryModel : public zelData::EntityModel {
public:
    explicit ThreadTimelineEntryModel(const Name& name);

    /// Loaded at the first call; an entity that cannot be loaded ends the process.
    [[nodiscard]] static ThreadTimelineEntryModel* instance();
    /// Makes an instance in the calling thread's default storage.
    static ThreadTimelineEntryPtr createInstance();
    [[nodiscard]] static zelData::EntityStorage* defaultStorage();

    void shutdownCleanup() override;
    [[nodiscard]] zelData::EntityData* createData(zelData::EntityStorage* storage) override;
    void initAttributeAccessors() override;
    void construct(zelData::EntityPtr instance) override;
    /// Called for each new instance if the entity has a constructor. Has nothing to do: the default values
    /// of the attributes are enough.
    virtual void construct(ThreadTimelineEntryPtr instance);

    static const zelData::Attribute* taskId;
    static const zelData::Attribute* startTimeGlobal;
    static const zelData::Attribute* endTimeGlobal;
    static const zelData::Attribute* startTimeFrame;
    static const zelData::Attribute* endTimeFrame;
    static const zelData::Attribute* description;
    static const zelData::Attribute* costEstimate;
    static const zelData::Attribute* poolSize;
    static const zelData::Attribute* jobType;
    static const zelData::Attribute* jobPtr;
    static const zelData::Attribute* extraDataTitle;
    static const zelData::Attribute* extraData;

private:
    static std::atomic<ThreadTimelineEntryModel*> s_instance;
};

/// The columns of a storage of the entity "ThreadTimelineEntry".
class ZEL_CORE_API ThreadTimelineEntryData : public zelData::EntityData {
public:
    ThreadTimelineEntryData();
    explicit ThreadTimelineEntryData(zelData::EntityStorage* storage);

    zelData::Array<uint32> taskId;          // of the task that the job belongs to
    zelData::Array<double> startTimeGlobal; // since the start of the recording
    zelData::Array<double> endTimeGlobal;   // since the start of the recording
    zelData::Array<double> startTimeFrame;  // since the start of the frame
    zelData::Array<double> endTimeFrame;    // since the start of the frame
    zelData::Array<String> description;     // what the job does
    zelData::Array<uint32> costEstimate;    // the job's priority
    zelData::Array<uint32> poolSize;        // jobs that were queued on the thread
    zelData::Array<uint8> jobType;
    zelData::Array<uint64> jobPtr;         // address of the job
    zelData::Array<String> extraDataTitle; // name of the number that comes next
    zelData::Array<double> extraData;
};

/// Reads and writes the attributes of one instance through a handle.
template <typename Handle>
class ThreadTimelineEntrySemantics : public Handle {
public:
    using Handle::Handle;

    [[nodiscard]] uint32 getTaskId() const {
        return zelData::getElement<uint32>(*this, ThreadTimelineEntryModel::taskId);
    }
    void setTaskId(uint32 value) const {
        zelData::getElement<uint32>(*this, ThreadTimelineEntryModel::taskId) = value;
    }
    [[nodiscard]] double getStartTimeGlobal() const {
        return zelData::getElement<double>(*this, ThreadTimelineEntryModel::startTimeGlobal);
    }
    void setStartTimeGlobal(double value) const {
        zelData::getElement<double>(*this, ThreadTimelineEntryModel::startTimeGlobal) = value;
    }
    [[nodiscard]] double getEndTimeGlobal() const {
        return zelData::getElement<double>(*this, ThreadTimelineEntryModel::endTimeGlobal);
    }
    void setEndTimeGlobal(double value) const {
        zelData::getElement<double>(*this, ThreadTimelineEntryModel::endTimeGlobal) = value;
    }
    [[nodiscard]] double getStartTimeFrame() const {
        return zelData::getElement<double>(*this, ThreadTimelineEntryModel::startTimeFrame);
    }
    void setStartTimeFrame(double value) const {
        zelData::getElement<double>(*this, ThreadTimelineEntryModel::startTimeFrame) = value;
    }
    [[nodiscard]] double getEndTimeFrame() const {
        return zelData::getElement<double>(*this, ThreadTimelineEntryModel::endTimeFrame);
    }
    void setEndTimeFrame(double value) const {
        zelData::getElement<double>(*this, ThreadTimelineEntryModel::endTimeFrame) = value;
    }
    [[nodiscard]] const String& getDescription() const {
        return zelData::getElement<String>(*this, ThreadTimelineEntryModel::description);
    }
    void setDescription(const String& value) const {
        zelData::getElement<String>(*this, ThreadTimelineEntryModel::description) = value;
    }
    [[nodiscard]] uint32 getCostEstimate() const {
        return zelData::getElement<uint32>(*this, ThreadTimelineEntryModel::costEstimate);
    }
    void setCostEstimate(uint32 value) const {
        zelData::getElement<uint32>(*this, ThreadTimelineEntryModel::costEstimate) = value;
    }
    [[nodiscard]] uint32 getPoolSize() const {
        return zelData::getElement<uint32>(*this, ThreadTimelineEntryModel::poolSize);
    }
    void setPoolSize(uint32 value) const {
        zelData::getElement<uint32>(*this, ThreadTimelineEntryModel::poolSize) = value;
    }
    [[nodiscard]] uint8 getJobType() const {
        return zelData::getElement<uint8>(*this, ThreadTimelineEntryModel::jobType);
    }
    void setJobType(uint8 value) const {
        zelData::getElement<uint8>(*this, ThreadTimelineEntryModel::jobType) = value;
    }
    [[nodiscard]] uint64 getJobPtr() const {
        return zelData::getElement<uint64>(*this, ThreadTimelineEntryModel::jobPtr);
    }
    void setJobPtr(uint64 value) const {
        zelData::getElement<uint64>(*this, ThreadTimelineEntryModel::jobPtr) = value;
    }
    [[nodiscard]] const String& getExtraDataTitle() const {
        return zelData::getElement<String>(*this, ThreadTimelineEntryModel::extraDataTitle);
    }
    void setExtraDataTitle(const String& value) const {
        zelData::getElement<String>(*this, ThreadTimelineEntryModel::extraDataTitle) = value;
    }
    [[nodiscard]] double getExtraData() const {
        return zelData::getElement<double>(*this, ThreadTimelineEntryModel::extraData);
    }
    void setExtraData(double value) const {
        zelData::getElement<double>(*this, ThreadTimelineEntryModel::extraData) = value;
    }
};

/// A handle of an instance of the entity "ThreadTimelineEntry" or one that derives from it.
class ThreadTimelineEntryPtr : public ThreadTimelineEntrySemantics<zelData::EntityPtr> {
public:
    using ThreadTimelineEntrySemantics<zelData::EntityPtr>::ThreadTimelineEntrySemantics;
    ThreadTimelineEntryPtr() = default;
    explicit ThreadTimelineEntryPtr(const zelData::EntityPtr& instance)
        : ThreadTimelineEntrySemantics<zelData::EntityPtr>(instance.getStorage(), instance.getId()) {}
};

/// An instance by its place of the entity "ThreadTimelineEntry" or one that derives from it.
class ThreadTimelineEntryInstance : public ThreadTimelineEntrySemantics<zelData::EntityInstance> {
public:
    using ThreadTimelineEntrySemantics<zelData::EntityInstance>::ThreadTimelineEntrySemantics;
    ThreadTimelineEntryInstance() = default;
    explicit ThreadTimelineEntryInstance(const zelData::EntityInstance& instance)
        : ThreadTimelineEntrySemantics<zelData::EntityInstance>(instance.getData(), instance.getIndex()) {}
};

} // namespace zel

namespace zelData {
template <>
struct TypeNameOf<zel::ThreadTimelineEntryPtr> {
    static constexpr const char* name = "ThreadTimelineEntryPtr";
};
template <>
struct TypeNameOf<zel::ThreadTimelineEntryInstance> {
    static constexpr const char* name = "ThreadTimelineEntryInstance";
};
} // namespace zelData
