#pragma once

#include "JournalFixture.h"

#include <zel/Clock.h>
#include <zel/Random.h>
#include <zelData/EntityStorage.h>
#include <zelData/RandomGenerator.h>
#include <zelData/Recorder.h>

#include <functional>

namespace zelTest {

/// A small simulation in a tree of its own: values that move, and a storage in which instances are born and
/// die, driven by a clock, a slave clock, events and a generator in the tree.
class SmallRun {
public:
    explicit SmallRun(zelData::EntityModel* model, zel::uint64 seed = 7)
        : storage(new zelData::EntityStorage(model, "planets"))
        , random(new zelData::RandomGenerator("random", seed))
        , clock(new zel::Clock("clock", 10))
        , slave(new zel::Clock("slave", 4)) {
        for (zel::Object* child : std::initializer_list<zel::Object*>{storage.get(),
                                                                      random.get(),
                                                                      position.get(),
                                                                      ticks.get(),
                                                                      condition.get(),
                                                                      clock.get(),
                                                                      slave.get()})
            root->addObject(child);
        storage->createInstances(5);
        position->set(1.0);
        addEvent("move", 0.1, [this] { move(); });
        addEvent("bear", 0.23, [this] { bear(); });
        addEvent("kill", 0.37, [this] { kill(); });
        addEvent("once", -1, [this] { position->set(position->get() + 100); });
        clock->addSlave(slave.get());
        slave->addFrameJob(&job);
    }
    SmallRun(const SmallRun&) = delete;
    SmallRun& operator=(const SmallRun&) = delete;
    ~SmallRun() { slave->removeFrameJob(&job); }

    void tick(int n) {
        for (int i = 0; i < n; ++i)
            clock->tick();
    }
    /// Of all that the run goes by: of the values, of the instances by id, and of the turn of the generator.
    [[nodiscard]] zel::uint64 hash() const {
        zel::uint64 sum = 1469598103934665603U;
        const auto add = [&sum](zel::uint64 word) { sum = (sum ^ word) * 1099511628211U; };
        const auto addReal = [&add](double number) {
            zel::uint64 word = 0;
            std::memcpy(&word, &number, sizeof(word));
            add(word);
        };
        addReal(position->get());
        add(ticks->get());
        addReal(clock->getTime());
        addReal(slave->getTime());
        add(clock->getFrame());
        add(slave->getFrame());
        add(storage->size());
        for (zel::uint64 i = 0; i < storage->size(); ++i) {
            add(storage->getId(static_cast<zel::uint32>(i)));
            addReal(masses()[i]);
        }
        const auto* state = dynamic_cast<const zelData::Buffer*>(random->findObject("state"));
        for (zel::uint64 i = 0; i < state->size(); ++i)
            add(state->data<zel::uint64>()[i]);
        return sum;
    }
    [[nodiscard]] double* masses() const { return storage->getBuffer("mass")->data<double>(); }

    zel::ref_ptr<zel::Component> root{new zel::Component("run")};
    zel::ref_ptr<zelData::EntityStorage> storage;
    zel::ref_ptr<zelData::RandomGenerator> random;
    zel::ref_ptr<zelData::ValueT<double>> position{new zelData::ValueT<double>("position", 0)};
    zel::ref_ptr<zelData::ValueT<zel::uint64>> ticks{new zelData::ValueT<zel::uint64>("ticks", 0)};
    zel::ref_ptr<zelData::ValueT<bool>> condition{new zelData::ValueT<bool>("condition", true)};
    zel::ref_ptr<zel::Clock> clock;
    zel::ref_ptr<zel::Clock> slave;

private:
    /// What the slave runs in a frame of its master.
    class SlaveJob : public zel::Job {
    public:
        explicit SlaveJob(SmallRun& run) : Job("slaveJob"), m_run(run) {}
        void implementation() override { m_run.ticks->set(m_run.ticks->get() + 1); }

    private:
        SmallRun& m_run;
    };

    void addEvent(const char* name, double interval, zel::Callback callback) const {
        const zel::ref_ptr<zel::Clock::Event> event(new zel::Clock::Event(zel::Name(name)));
        event->setInterval(interval);
        event->setStartDelay(interval < 0 ? 0.5 : interval);
        event->callbacks.connect(std::move(callback));
        clock->addEvent(event.get());
    }
    double draw() const { return static_cast<double>((*random)() >> 11) * 0x1p-53; }
    void move() const {
        position->set(position->get() * 0.999 + draw());
        for (zel::uint64 i = 0; i < storage->size(); ++i)
            masses()[i] += position->get() * static_cast<double>(i + 1);
    }
    void bear() const {
        const zelData::EntityPtr born = storage->createInstance();
        masses()[storage->getIndex(born.getId())] = draw();
    }
    void kill() const {
        if (storage->size() > 2)
            storage->destroyInstance(storage->getId(static_cast<zel::uint32>((*random)() % storage->size())));
    }

    SlaveJob job{*this};
};

/// Journals of such runs.
class RunFixture : public JournalFixture {
protected:
    void TearDown() override {
        recorder = nullptr;
        run = nullptr;
        JournalFixture::TearDown();
    }
    zelData::EntityModel* planetModel() {
        if (m_model == nullptr)
            m_model = entity("RunPlanet", "<Attribute.Scalar name='mass' type='Real' value='5'/>");
        return m_model;
    }
    std::unique_ptr<SmallRun> makeRun(zel::uint64 seed = 7) {
        return std::make_unique<SmallRun>(planetModel(), seed);
    }
    /// A recorder of the run that has not begun.
    void prepare() {
        run = makeRun();
        recorder = new zelData::Recorder;
        recorder->setClock(run->clock.get());
        recorder->setRoot(run->root.get());
        recorder->setJournal(path());
    }
    void start() {
        const StreamCapture quiet(std::cout);
        recorder->start();
    }
    void recordRun(int numTicks) {
        prepare();
        start();
        run->tick(numTicks);
        recorder->stop();
    }

    std::unique_ptr<SmallRun> run;
    zel::ref_ptr<zelData::Recorder> recorder;

private:
    zelData::EntityModel* m_model = nullptr;
};

} // namespace zelTest
