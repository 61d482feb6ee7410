#pragma once

#include "EntityFixture.h"

#include <zel/ByteAllocator.h>
#include <zelData/Buffer.h>
#include <zelData/FormatT.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace zelTest {

/// Where elements and constructors may fail: the n-th of them does, once.
class Fault {
public:
    static constexpr zel::uint64 Never = ~zel::uint64{0};

    static void point() {
        if (s_left != Never && s_left-- == 0)
            throw std::runtime_error("fault");
    }
    /// Lets go of what was armed here and at the allocator.
    static void disarm() {
        s_left = Never;
        zel::ByteAllocator::triesUntilFailure = zel::ByteAllocator::NoFailure;
    }
    static void arm(bool memory, zel::uint64 n) {
        disarm();
        (memory ? zel::ByteAllocator::triesUntilFailure : s_left) = n;
    }
    [[nodiscard]] static bool isArmed() {
        return s_left != Never || zel::ByteAllocator::triesUntilFailure != zel::ByteAllocator::NoFailure;
    }

private:
    static inline zel::uint64 s_left = Never;
};

/// An element with memory of its own, which may fail wherever it is made or copied.
class Fragile {
public:
    Fragile() : Fragile(0) {}
    explicit Fragile(int number) {
        Fault::point();
        m_number = new int(number);
        ++s_numAlive;
    }
    Fragile(const Fragile& other) : Fragile(other.number()) {}
    Fragile(Fragile&& other) noexcept : m_number(std::exchange(other.m_number, nullptr)) { ++s_numAlive; }
    Fragile& operator=(const Fragile& other) {
        if (this != &other)
            *this = Fragile(other);
        return *this;
    }
    Fragile& operator=(Fragile&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~Fragile() {
        delete m_number;
        --s_numAlive;
    }

    [[nodiscard]] int number() const { return m_number == nullptr ? -1 : *m_number; }
    [[nodiscard]] static zel::int64 numAlive() { return s_numAlive; }

private:
    int* m_number = nullptr;
    static inline zel::int64 s_numAlive = 0;
};

/// An entity whose constructor may fail.
class FragileModel : public zelData::EntityModel {
public:
    explicit FragileModel(const zel::Name& name) : EntityModel(name) {}
    void construct(zelData::EntityPtr) override { Fault::point(); }
};

/// Storages of columns of all kinds: plain ones, several elements an instance, texts, fragile elements.
class FragileFixture : public EntityFixture {
protected:
    void SetUp() override {
        EntityFixture::SetUp();
        zelData::Type* type = zelData::getOrCreateType("Fragile");
        if (type->getDefaultFormat() == nullptr)
            type->addFormat(new zelData::FormatT<Fragile>("default"), true);
    }
    void TearDown() override {
        Fault::disarm();
        EntityFixture::TearDown();
    }
    /// @param name  one for which a loader of FragileModel is registered
    zelData::EntityModel* loadModel(const std::string& name) {
        write(name,
              "<Entity.Model name='" + name +
                  "' hasConstructor='true'>"
                  "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                  "<Attribute.Scalar name='triple' type='UInt:32bit' value='9' numElements='3'/>"
                  "<Attribute.Scalar name='title' type='String' value='a title that has memory of its own'/>"
                  "<Attribute.Scalar name='glass' type='Fragile'/>"
                  "<Attribute.Scalar name='pair' type='Fragile' numElements='2'/>"
                  "</Entity.Model>");
        return zelData::getEntity(zel::Path(name));
    }
};

} // namespace zelTest
