#pragma once

#include "ArchiveBytes.h"

#include <zel/Integers.h>
#include <zel/Uuid.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <functional>
#include <sstream>
#include <string>

// Small classes that live in archives, and what the tests of archives share.

namespace fleet {

/// A leaf.
class Wheel : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Wheel)
public:
    Wheel() = default;
    explicit Wheel(double r) : radius(r) {}
    void store(zelStream::OutputArchive& archive) const override { archive.write(radius); }
    void restore(zelStream::InputArchive& archive) override { archive.read(radius); }

    double radius = 0;
};

/// Lies within its owner and refers to a part that is shared.
class Motor : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Motor)
public:
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

    zel::int32 power = 0;
    zel::ref_ptr<Wheel> drives;
};

/// Refers to others of its kind, also round about, holds a part by value and shares another.
class Vehicle : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Vehicle)
public:
    Vehicle() = default;
    explicit Vehicle(std::string n) : name(std::move(n)) {}
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;
    void storeLightData(zelStream::StorageStream& stream) const override;
    void restoreLightData(zelStream::StorageStream& stream) override;

    std::string name;
    Vehicle* leader = nullptr; ///< not held, for it may go round
    zel::ref_ptr<Wheel> spare;
    Motor motor;
    double fuel = 0; ///< light data
};

/// Does what a test tells it to.
class Scripted : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Scripted)
public:
    Scripted() { ++s_numLiving; }
    ~Scripted() override { --s_numLiving; }
    void store(zelStream::OutputArchive& archive) const override {
        if (s_store)
            s_store(*this, archive);
    }
    void restore(zelStream::InputArchive& archive) override {
        if (s_restore)
            s_restore(*this, archive);
    }

    static std::function<void(const Scripted&, zelStream::OutputArchive&)> s_store;
    static std::function<void(Scripted&, zelStream::InputArchive&)> s_restore;
    static int s_numLiving;
};

/// Can only be made for an archive.
class Permit : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Permit)
public:
    explicit Permit(zelStream::InputArchive& archive) : issuer(archive.getAppName()) {}
    void store(zelStream::OutputArchive&) const override {}
    void restore(zelStream::InputArchive&) override {}

    std::string issuer;
};

/// Has no agent.
class Rumour : public zelStream::Serializable {
public:
    void store(zelStream::OutputArchive&) const override {}
    void restore(zelStream::InputArchive&) override {}
};

/// One of many in a row; each stores the next one within itself.
class Wagon : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Wagon)
public:
    void store(zelStream::OutputArchive& archive) const override { archive.write(next); }
    void restore(zelStream::InputArchive& archive) override { archive.read(next); }

    Wagon* next = nullptr;
};

/// The same, without a stack as deep as the row is long.
class Barge : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Barge)
public:
    void store(zelStream::OutputArchive& archive) const override { archive.writeDeferred(next); }
    void restore(zelStream::InputArchive& archive) override { archive.readDeferred(next); }

    Barge* next = nullptr;
};

} // namespace fleet

namespace zelTest {

/// The what() of the ArchiveException that the function throws; other exceptions pass.
template <typename Function>
std::string archiveErrorOf(Function&& function) {
    try {
        std::forward<Function>(function)();
    } catch (const zelStream::ArchiveException& error) {
        return error.what();
    }
    return "no exception";
}

/// A uuid that is easily told from others.
inline zel::Uuid uuidOf(char fill) {
    zel::Uuid uuid;
    std::fill_n(uuid.data(), zel::Uuid::NumBytes, static_cast<zel::uint8>(fill));
    return uuid;
}

/// An archive of the bytes, open.
class Opened {
public:
    explicit Opened(const std::string& bytes) : m_stream(bytes) { m_archive.open(m_stream); }
    explicit Opened(const ArchiveBytes& bytes) : Opened(bytes.bytes()) {}
    zelStream::InputArchive& operator*() { return m_archive; }
    zelStream::InputArchive* operator->() { return &m_archive; }
    std::istringstream& stream() { return m_stream; }

private:
    std::istringstream m_stream;
    zelStream::InputArchive m_archive;
};

/// Calls a function for each restored object.
class Listening : public zelStream::RestoreListener {
public:
    using Function = std::function<void(zelStream::Serializable*, zelStream::InputArchive&)>;
    explicit Listening(Function function) : m_function(std::move(function)) {}
    void objectRestored(zelStream::Serializable* object, zelStream::InputArchive& archive) override {
        m_function(object, archive);
    }

private:
    Function m_function;
};

class ArchiveFixture : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override {
        fleet::Scripted::s_store = nullptr;
        fleet::Scripted::s_restore = nullptr;
        zelCore::shutdown();
    }

    /// The bytes behind the header that the work writes.
    template <typename Work>
    static std::string written(Work work, bool isLittleEndian = true) {
        std::ostringstream stream;
        zelStream::OutputArchive archive;
        archive.setLittleEndian(isLittleEndian);
        archive.open(stream);
        archive.flush();
        const std::size_t headerSize = stream.str().size();
        work(archive);
        archive.close();
        return stream.str().substr(headerSize);
    }
    /// A whole archive.
    template <typename Work>
    static std::string archiveOf(Work work, bool isLittleEndian = true) {
        std::ostringstream stream;
        zelStream::OutputArchive archive;
        archive.setLittleEndian(isLittleEndian);
        archive.setUseCurrentDate(false);
        archive.open(stream);
        work(archive);
        archive.close();
        return stream.str();
    }
    /// The header of an archive for the reader, to which a test adds.
    static ArchiveBytes start(bool isLittleEndian = true) {
        ArchiveHead head;
        head.isLittleEndian = isLittleEndian;
        return ArchiveBytes(head);
    }
    /// Of a serialization version.
    static ArchiveBytes startOf(zel::uint16 serialization, bool isLittleEndian = true) {
        ArchiveHead head;
        head.serialization = serialization;
        head.isLittleEndian = isLittleEndian;
        return ArchiveBytes(head);
    }
};

} // namespace zelTest
