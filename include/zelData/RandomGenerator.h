#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/ValueT.h>

namespace zelData {

/// A source of random numbers whose state lies in the tree, so that it is recorded and comes back with all
/// else: the child "seed", a UInt, and the buffer "state". It draws what std::mt19937_64 of the seed draws,
/// and stands wherever the standard library takes a generator:
///
///     std::normal_distribution<double> speed(0, 1);
///     const double v = speed(*generator);
///
/// In a model file it is an element:
///
///     <RandomGenerator name="random" seed="42"/>
///
/// A distribution that keeps a number for the next call, as the one above does, is a state of its own: make
/// it anew for each draw, or call its reset().
///
/// Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API RandomGenerator : public zel::Component {
public:
    using result_type = zel::uint64;

    static constexpr zel::uint64 DefaultSeed = 5489;

    explicit RandomGenerator(const zel::Name& name, zel::uint64 seed = DefaultSeed);
    ~RandomGenerator() override;

    /// Reads "seed".
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element) override;
    using zel::Component::configure;
    [[nodiscard]] static zel::Model* ClassModel();
    [[nodiscard]] static RandomGenerator* load(TiXmlElement* element, zel::Device* device);
    using zel::Component::load;

    /// Begins anew. So does setting the value "seed".
    void setSeed(zel::uint64 seed) { m_seed.set(seed); }
    [[nodiscard]] zel::uint64 getSeed() const { return m_seed.get(); }
    [[nodiscard]] static constexpr result_type min() { return 0; }
    [[nodiscard]] static constexpr result_type max() { return ~result_type{0}; }
    [[nodiscard]] result_type operator()();

private:
    void begin();

    Val<zel::uint64> m_seed;
    zel::ref_ptr<Buffer> m_state; // the words, and how many of them are drawn
};

} // namespace zelData
