#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/RandomGenerator.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <atomic>

// The Mersenne Twister of 64 bits: the numbers are those of the standard's definition of mt19937_64.

namespace zelData {

using zel::uint64;

namespace {

constexpr uint64 NumWords = 312;
constexpr uint64 Middle = 156;
constexpr uint64 LowMask = (uint64{1} << 31) - 1;

void refill(uint64* words) {
    for (uint64 i = 0; i < NumWords; ++i) {
        const uint64 mixed = (words[i] & ~LowMask) | (words[(i + 1) % NumWords] & LowMask);
        words[i] = words[(i + Middle) % NumWords] ^ (mixed >> 1) ^
                   ((mixed & 1) == 0 ? 0 : uint64{0xB5026F5AA96619E9});
    }
}

zel::Object* loadRandomGenerator(TiXmlElement* element, zel::Device* device) {
    return RandomGenerator::load(element, device);
}

const zel::XmlLoaderRegistrator s_randomGeneratorLoader("RandomGenerator", loadRandomGenerator);

} // namespace

RandomGenerator::RandomGenerator(const zel::Name& name, uint64 seed)
    : Component(name, ClassModel()), m_seed("seed", seed), m_state(new Buffer("state", getFormat("UInt"))) {
    rebindsOnDemand(typeid(RandomGenerator));
    m_state->resize(NumWords + 1);
    begin();
    addObject(&m_seed);
    addObject(m_state.get());
    m_seed.updateEvent.connect([this](Value*) { begin(); });
}

RandomGenerator::~RandomGenerator() = default;

zel::Model* RandomGenerator::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.RandomGenerator", Component::ClassModel(), s_model);
}

RandomGenerator* RandomGenerator::load(TiXmlElement* element, zel::Device* device) {
    zel::ref_ptr<RandomGenerator> generator(
        new RandomGenerator(zel::parseAttribute<zel::Name>(element, "name")));
    generator->setDevice(device);
    generator->configure(element);
    return generator.release_nodelete();
}

void RandomGenerator::configure(TiXmlElement* element) {
    Component::configure(element);
    if (element->Attribute("seed") != nullptr)
        setSeed(zel::parseAttribute<uint64>(element, "seed"));
}

void RandomGenerator::begin() {
    auto* words = m_state->data<uint64>();
    words[0] = m_seed.get();
    for (uint64 i = 1; i < NumWords; ++i)
        words[i] = 6364136223846793005U * (words[i - 1] ^ (words[i - 1] >> 62)) + i;
    words[NumWords] = NumWords;
}

uint64 RandomGenerator::operator()() {
    zelVerifyN(
        m_state->size() == NumWords + 1, "%s: The state of a generator has 313 elements", getPath().c_str());
    auto* words = m_state->data<uint64>();
    uint64& numDrawn = words[NumWords];
    if (numDrawn >= NumWords) {
        refill(words);
        numDrawn = 0;
    }
    uint64 number = words[numDrawn++];
    number ^= (number >> 29) & 0x5555555555555555U;
    number ^= (number << 17) & 0x71D67FFFEDA60000U;
    number ^= (number << 37) & 0xFFF7EEE000000000U;
    return number ^ (number >> 43);
}

} // namespace zelData
