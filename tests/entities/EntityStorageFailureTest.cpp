#include "Fragile.h"

#include <zelData/EntityData.h>
#include <zelData/SpareBlocks.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <numeric>
#include <vector>

// What is left when the n-th allocation, element or constructor fails, for every n: all as it was.

using zel::ref_ptr;
using zel::String;
using zel::uint32;
using zel::uint64;
using zelData::Array;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelTest::Fault;
using zelTest::Fragile;

namespace {

zelData::EntityModel::LoaderT<zelTest::FragileModel> s_fragileLoader("FragileBody");

/// All that can be seen of the instances of a storage.
struct Picture {
    explicit Picture(EntityStorage& storage)
        : size(storage.size())
        , sizeValue(storage.getSizeValue()->get())
        , numElements(storage.getData()->getNumElements())
        , batch(storage.isBatchOpen()) {
        storage.verifyConsistency();
        for (uint64 i = 0; i < storage.capacity(); ++i)
            ids.push_back(storage.getId(i));
        for (const ref_ptr<Buffer>& buffer : storage.getBuffers())
            sizes.push_back(buffer->size());
        for (uint64 i = 0; i < size; ++i) {
            mass.push_back(storage.getBuffer("mass")->data<double>()[i]);
            titles.push_back(storage.getBuffer("title")->data<String>()[i]);
            numbers.push_back(storage.getBuffer("glass")->data<Fragile>()[i].number());
            for (uint64 k = 0; k < 3; ++k)
                numbers.push_back(static_cast<int>(storage.getBuffer("triple")->data<uint32>()[3 * i + k]));
            for (uint64 k = 0; k < 2; ++k)
                numbers.push_back(storage.getBuffer("pair")->data<Fragile>()[2 * i + k].number());
        }
    }
    /// Room may have been made.
    void expectSame(const Picture& now) const {
        EXPECT_EQ(now.size, size);
        EXPECT_EQ(now.sizeValue, size);
        EXPECT_EQ(now.numElements, numElements);
        EXPECT_EQ(now.batch, batch);
        EXPECT_EQ(now.sizes, sizes);
        EXPECT_EQ(now.mass, mass);
        EXPECT_EQ(now.titles, titles);
        EXPECT_EQ(now.numbers, numbers);
        ASSERT_GE(now.ids.size(), ids.size());
        EXPECT_TRUE(std::equal(ids.begin(), ids.end(), now.ids.begin()));
    }

    uint64 size;
    uint64 sizeValue;
    uint64 numElements;
    bool batch;
    std::vector<uint32> ids;
    std::vector<uint64> sizes;
    std::vector<double> mass;
    std::vector<String> titles;
    std::vector<int> numbers;
};

class EntityStorageFailureTest : public zelTest::FragileFixture {
protected:
    using Work = std::function<void(EntityStorage&, EntityStorage&)>;

    /// A storage that is full, with some order of ids.
    ref_ptr<EntityStorage> make(int first) {
        ref_ptr<EntityStorage> storage(new EntityStorage(m_model));
        for (int i = 0; i < 33; ++i)
            static_cast<void>(storage->createInstance());
        static_cast<void>(storage->createInstances(storage->capacity() - 33 + 2));
        storage->destroyInstance(7);
        storage->destroyInstance(1);
        while (storage->size() < storage->capacity())
            static_cast<void>(storage->createInstance());
        for (uint64 i = 0; i < storage->size(); ++i) {
            const int number = first + static_cast<int>(i);
            storage->getBuffer("mass")->data<double>()[i] = number;
            storage->getBuffer("title")->data<String>()[i] =
                "a title with the number " + std::to_string(number);
            storage->getBuffer("glass")->data<Fragile>()[i] = Fragile(number);
            for (int k = 0; k < 3; ++k)
                storage->getBuffer("triple")->data<uint32>()[3 * i + static_cast<uint64>(k)] =
                    static_cast<uint32>(number + k);
            for (int k = 0; k < 2; ++k)
                storage->getBuffer("pair")->data<Fragile>()[2 * i + static_cast<uint64>(k)] =
                    Fragile(number + k);
        }
        return storage;
    }

    /// @return how often the work has failed
    uint64 failAtEach(const Work& work) {
        uint64 numFailures = 0;
        for (const bool memory : {true, false})
            for (uint64 n = 0; n < 100'000; n = n < 20 ? n + 1 : n + n / 3) {
                const ref_ptr<EntityStorage> storage = make(100);
                const ref_ptr<EntityStorage> other = make(500);
                const Picture before(*storage);
                const Picture otherBefore(*other);
                const zel::int64 numAlive = Fragile::numAlive();
                Fault::arm(memory, n);
                bool failed = false;
                try {
                    work(*storage, *other);
                } catch (const std::runtime_error&) {
                    failed = true;
                }
                const bool reached = !Fault::isArmed();
                Fault::disarm();
                EXPECT_EQ(failed, reached);
                if (!failed) {
                    storage->verifyConsistency();
                    break;
                }
                ++numFailures;
                before.expectSame(Picture(*storage));
                otherBefore.expectSame(Picture(*other));
                EXPECT_EQ(Fragile::numAlive(), numAlive);
                // And it may be tried again.
                work(*storage, *other);
                storage->verifyConsistency();
                other->verifyConsistency();
                if (HasFailure()) {
                    ADD_FAILURE() << (memory ? "allocation " : "element ") << n;
                    return numFailures;
                }
            }
        return numFailures;
    }

    void SetUp() override {
        FragileFixture::SetUp();
        m_model = loadModel("FragileBody");
        ASSERT_NE(m_model, nullptr);
    }

    zelData::EntityModel* m_model = nullptr;
};

zel::VectorPOD<uint32> reversed(uint64 n) {
    zel::VectorPOD<uint32> permutation(n);
    for (uint64 i = 0; i < n; ++i)
        permutation[i] = static_cast<uint32>(n - 1 - i);
    return permutation;
}

} // namespace

TEST_F(EntityStorageFailureTest, ACreation) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  static_cast<void>(storage.createInstance());
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, ACreationInAGlobalOrder) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  const uint64 size = storage.size();
                  // Made at the first time, and not at the second one.
                  const Buffer* order = storage.getOrCreateGlobalOrderBuffer();
                  try {
                      static_cast<void>(storage.createInstances(40));
                  } catch (...) {
                      EXPECT_EQ(order->size(), size);
                      throw;
                  }
                  EXPECT_EQ(order->size(), size + 40);
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, ACreationOfMany) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  static_cast<void>(storage.createInstances(1500));
              }),
              20U);
}

TEST_F(EntityStorageFailureTest, AReservation) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  const uint64 capacity = storage.capacity();
                  try {
                      storage.reserve(300);
                  } catch (...) {
                      EXPECT_EQ(storage.capacity(), capacity);
                      EXPECT_EQ(storage.getCapacityValue()->get(), capacity);
                      throw;
                  }
                  EXPECT_EQ(storage.capacity(), 300U);
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, AResize) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) { storage.resize(100); }), 10U);
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) { storage.getSizeValue()->set(100); }),
              10U);
}

TEST_F(EntityStorageFailureTest, AResizeLeavesTheBinding) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  const ref_ptr<zelData::ValueT<uint64>> wanted(
                      new zelData::ValueT<uint64>("wanted", storage.size()));
                  storage.getSizeValue()->bind(wanted.get());
                  try {
                      storage.resize(100);
                  } catch (...) {
                      EXPECT_EQ(storage.getSizeValue()->getBinding(), wanted.get());
                      storage.getSizeValue()->unbind(true);
                      storage.getSizeValue()->set(storage.size());
                      throw;
                  }
                  EXPECT_EQ(storage.getSizeValue()->getBinding(), nullptr);
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, APermutation) {
    EXPECT_GT(
        failAtEach([](EntityStorage& storage, EntityStorage&) { storage.reorder(reversed(storage.size())); }),
        10U);
    zelData::SpareBlocks spares;
    EXPECT_GT(failAtEach([&spares](EntityStorage& storage, EntityStorage&) {
                  zel::VectorPOD<uint32> permutation = reversed(storage.size());
                  storage.reorder(Array<uint32>(permutation), &spares);
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, APreparationOfAPermutation) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  zel::VectorPOD<uint32> permutation = reversed(storage.size());
                  const Array<uint32> view(permutation);
                  storage.preparePermutation();
                  std::exception_ptr failure;
                  for (uint64 begin = 0; begin < storage.size(); begin += 20) {
                      const zel::IndexRange range(begin, std::min(begin + 20, storage.size()));
                      try {
                          storage.reorderAttributes(range, view);
                      } catch (const std::runtime_error&) {
                          failure = std::current_exception();
                          storage.reorderAttributes(range, view); // and it may be tried again
                      }
                  }
                  storage.commitPermutation(view);
                  if (failure) {
                      storage.reorder(permutation); // back again
                      std::rethrow_exception(failure);
                  }
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, ACopy) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage& other) {
                  static_cast<void>(storage.copyInstance(3, &other));
              }),
              10U);
    EXPECT_GT(
        failAtEach([](EntityStorage& storage, EntityStorage& other) { storage.copyInstance(3, &other, 4); }),
        2U);
}

TEST_F(EntityStorageFailureTest, ATransfer) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage& other) {
                  EXPECT_EQ(storage.size(), other.size());
                  static_cast<void>(storage.transferInstance(3, &other));
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, ABatch) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  const uint64 size = storage.size();
                  storage.getData()->presize(static_cast<uint32>(size + 100));
                  EXPECT_TRUE(storage.isBatchOpen());
                  storage.commitBatch(size + 500);
                  EXPECT_EQ(storage.size(), size + 500);
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, AShare) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  const ref_ptr<EntityStorage> first(storage.createSharedStorage());
                  const ref_ptr<EntityStorage> second(storage.createSharedStorage());
                  const Picture before(*second);
                  try {
                      static_cast<void>(first->createInstances(30));
                  } catch (...) {
                      before.expectSame(Picture(*second));
                      throw;
                  }
                  EXPECT_EQ(second->size(), storage.size());
              }),
              10U);
}

TEST_F(EntityStorageFailureTest, AReaderOfFrames) {
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  const uint64 size = storage.size();
                  storage.presize(size, 400);
              }),
              10U);
    EXPECT_GT(failAtEach([](EntityStorage& storage, EntityStorage&) {
                  storage.keyFrameResize(storage.size(), 400);
              }),
              1U);
}
