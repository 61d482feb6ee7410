#pragma once

#include <zel/Callback.h>
#include <zel/Component.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Job.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/Task.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

namespace zel {

/// Drives simulation time in frames. Each tick runs the frame's tasks, fires the events whose frame has come
/// and advances the values "time" and "frame". Its values are child objects: "enable", "time", "frequency",
/// "timeModulation", "timeStep" and "frame"; times are in seconds.
///
/// A clock may follow another one, its master: it then ticks by an event of the master's, and its frame's
/// tasks run with the master's.
///
/// Callbacks may add, remove and change any event, and any setting of the clock, and may let go of the clock,
/// which then stays until its tick has ended. After one that throws, the events keep their turns: the next
/// tick goes on with what is left of the frame.
/// @threads one thread ticks and changes a clock; the tasks run on the threads of the pool
/// @cost tick: the tasks, and the events that are due, however many are scheduled; nothing is allocated once
///     the tables have grown
class ZEL_CORE_API Clock : public Task {
public:
    class Event;

    /// Where an event stands in the schedule of its clock.
    struct EventState {
        Event* event;
        uint64 dispatchFrame; ///< the one that it waits for, or the last one that it waited for
        double residual;      ///< what its delay has beyond whole frames, in seconds
        bool isScheduled;
    };

    /// @param frequency  frames a second; above 0
    Clock(const Name& name, double frequency);
    ~Clock() override;

    // The task of ticking once

    void setTargetThread(Thread* thread) override;
    [[nodiscard]] Job* getPreJob() override { return &m_job; }
    [[nodiscard]] Job* getPostJob() override { return &m_job; }

    /// Reads "name", "synchronize", "time", "frequency", "timeModulation" and "enable", and the child
    /// elements "Value" and "Event".
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element) override;
    using Task::configure;
    /// Adds a child "Clock" with the values and events.
    void save(TiXmlElement* element) const override;
    /// Also attaches the clock to the master that "synchronize" named.
    void rebind() override;

    [[nodiscard]] static Model* ClassModel();
    /// Makes a clock from an element of the tag "Clock".
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Clock* load(TiXmlElement* element, Device* device);
    using Task::load;

    // Time

    /// Does nothing while the clock is disabled.
    /// @param force  not read
    void tick(bool force = true);
    /// Ticks until "time" is at least this, whether or not the clock is enabled.
    void stepTo(double time);
    void stepForward(double duration);
    /// Sets time and frame to zero; each event waits for its start delay anew.
    void reset();

    // The child values take what these take, and refuse what they refuse, with the same warning: a value goes
    // back to what it was. One that is bound to another keeps its binding, and the clock goes on with the
    // last number that was good.

    void setTime(double time);
    /// Every scheduled event keeps its distance.
    void setFrame(size_t frame);
    /// @param frequency  finite and above 0; anything else is refused with a warning
    void setFrequency(double frequency);
    /// Sets the frequency that makes this step.
    /// @param timeStep  finite and above 0; anything else is refused with a warning
    void setTimeStep(double timeStep);
    /// @param modulation  finite and above 0; anything else is refused with a warning
    void setTimeModulation(double modulation);

    [[nodiscard]] double getTime() const { return m_time.get(); }
    [[nodiscard]] size_t getFrame() const { return m_frame.get(); }
    [[nodiscard]] double getFrequency() const noexcept { return m_presentFrequency; }
    [[nodiscard]] double getTimeStep() const noexcept { return m_presentTimeStep; }
    [[nodiscard]] double getTimeModulation() const noexcept { return m_presentModulation; }
    /// Modulation over frequency.
    [[nodiscard]] double calculateTimestep() const;

    // Events

    /// Takes the event in, as a child object, and schedules it by its start delay.
    void addEvent(Event* event);
    /// @return whether the clock had it
    bool removeEvent(Event* event);
    /// Schedules the event one interval after its last dispatch.
    void schedule(Event* event);
    /// @param delay  in seconds; less than a step is one frame. What is not a number is refused with a
    /// warning
    void schedule(Event* event, double delay);
    /// Takes the event off the schedule; it stays with the clock.
    void unschedule(Event* event);
    /// Schedules the event by its start delay.
    void reschedule(Event* event);
    /// Schedules all events anew for the present time step, each after the time that it had left.
    /// @param oldTimeStep  the step by which they were scheduled
    void rebuild(double oldTimeStep);
    [[nodiscard]] const Vector<Event*>& getEvents() const noexcept { return m_events; }
    /// Where all events stand: first those that are scheduled, in the order in which they will happen.
    [[nodiscard]] Vector<EventState> getSchedule() const;
    /// Puts the clock back to where it was: to the time, the frame and what getSchedule() gave there, so that
    /// it goes on in the same way. An event that the schedule lacks is taken off it, one whose frame has gone
    /// by happens in the next tick, and values that are bound keep their bindings. Not within a tick of the
    /// clock, which is verified.
    /// @param schedule  of events of this clock, which is verified
    void restoreSchedule(double time, size_t frame, const Vector<EventState>& schedule);
    /// Whether the tasks and jobs of this slave wait for the next frame of its master.
    [[nodiscard]] bool hasJoinedMaster() const;
    /// Puts a slave back to where it was in this, too: lets them join, or takes them out.
    void restoreJoined(bool joined);

    // Frames

    /// Runs the task in each frame. The clock does not own it; once destroyed it is no longer there.
    void addFrameTask(Task* task);
    /// The task does not run again, also if it was to run in the master's next frame.
    /// @return whether it was there
    bool removeFrameTask(Task* task);
    /// Runs the job in each frame. Not owned; remove it before it ends.
    void addFrameJob(Job* job);
    bool removeFrameJob(Job* job);

    /// Lets the other clock tick with this one, at its own frequency. Its tasks join those of this clock's
    /// next frame. One that is faster than this clock ticks once a frame and falls behind, of which a warning
    /// tells, now and when the timing of one of the two changes.
    void addSlave(Clock* clock);
    /// @return whether it was a slave of this clock
    bool removeSlave(Clock* clock);
    [[nodiscard]] Clock* getMaster() const noexcept { return m_master; }
    [[nodiscard]] const Vector<Clock*>& getSlaves() const noexcept { return m_slaves; }
    /// Of a slave: the event of its master by which it ticks. Null for any other clock.
    [[nodiscard]] Event* getFrameEvent() const noexcept { return m_frameEvent.get(); }
    /// Makes the clock that the path names the master; looked up at the next rebind.
    void bind(const Path& path);

    /// Whether the frames of this clock are those of the threads' timeline.
    void setIsThreadTimelineResponsible(bool responsible) noexcept {
        m_isThreadTimelineResponsible = responsible;
    }
    [[nodiscard]] bool getIsThreadTimelineResponsible() const noexcept {
        return m_isThreadTimelineResponsible;
    }

    EventT<Callback1<Clock*>> preTick;
    EventT<Callback1<Clock*>> postTick;

protected:
    /// Holds a clock while it is at work: a callback may take the last reference to it. One that nobody
    /// counts is its owner's.
    class Keep {
    public:
        explicit Keep(Clock& clock) : m_clock(clock.referenceCount() > 0 ? &clock : nullptr) {}

    private:
        ref_ptr<Clock> m_clock;
    };

    void configureChildren(TiXmlElement* element) override;

private:
    friend class Task; // replaceFrameTask

    class FrameWrapper;

    /// A place in the list of a frame, or in that of the free slots. The lists lie together, away from the
    /// events: thousands of those do not fit the cache.
    struct Slot {
        Event* event;
        uint32 next;
        uint32 previous;
    };
    static constexpr uint32 NoSlot = 0xFFFFFFFFU;

    class ZEL_CORE_API TickJob : public Job {
    public:
        TickJob(Clock& clock, const char* name) : Job(name), m_owner(clock) {}
        void implementation() override;

    private:
        Clock& m_owner;
    };

    void followFrequency();
    void followModulation();
    void followTimeStep();
    void followFrame();
    void updateTimeStep();
    /// Warns of a master that ticks less often.
    void warnOfSlowMaster() const;
    void slaveTick();
    /// Whether the other clock is this one or a master above it.
    [[nodiscard]] bool follows(const Clock* clock) const noexcept;
    /// Called by the task: another one takes its place.
    void replaceFrameTask(Task* task, Task* with);
    /// Takes the job out of a frame that the clock has joined and that has not run yet.
    void withdraw(const Job* job);
    void withdraw(const Task* task);
    void joinFrame();
    void collectFrame();
    void runFrame();
    void dispatchEvents();
    /// What becomes of an event that was due, after its callbacks.
    void finishDispatch(Event* event);
    /// Takes the list of the present frame off the schedule.
    void collectDue();
    void link(Event* event);
    void unlink(const Event* event);
    void clearSchedule();
    /// Takes the event off the schedule and off the list.
    void forget(Event* event);
    [[nodiscard]] Vector<ref_ptr<Event>> holdEvents() const;
    void scheduleAnew(double oldTimeStep, uint64 oldFrame);
    void configureValue(TiXmlElement* child);

    zelData::Val<double> m_time;
    zelData::Val<double> m_frequency;
    zelData::Val<double> m_timeModulation;
    zelData::Val<double> m_timeStep;
    zelData::Val<uint64> m_frame;
    // What the values held when they were last good, which the clock goes by.
    double m_presentFrequency;
    double m_presentModulation = 1;
    double m_presentTimeStep;
    uint64 m_presentFrame = 0;
    HashTable<uint64, uint32> m_schedule; // the slot at the head of the list of each frame
    VectorPOD<Slot> m_slots;
    uint32 m_freeSlot = NoSlot; // head of the list of those not in use
    VectorPOD<Event*> m_due;    // the list of the frame during dispatch; null where one went
    Vector<Event*> m_events;    // child objects; each knows its place
    Vector<observer_ptr<Task>> m_frameTasks;
    VectorPOD<Job*> m_frameJobs;
    ref_ptr<FrameWrapper> m_frameWrapper;
    ref_ptr<FrameWrapper> m_joined; // which the clock last put its tasks and jobs into, with its master
    Clock* m_master = nullptr;
    Vector<Clock*> m_slaves;
    ref_ptr<Event> m_frameEvent; // of a slave, on its master
    bool m_isTicking = false;
    bool m_isSlaveTicking = false;
    bool m_isForced = false; // by stepTo: ticks also while it is disabled
    bool m_isThreadTimelineResponsible = false;
    Path m_masterPath;
    Name m_jobName; // keeps the text of the job's name
    TickJob m_job;
};

/// Something that happens at a time of a clock, once or again and again. Its values are child objects:
/// "startDelay" and "interval" in seconds, "repeating" and "enabled". An event of a negative interval happens
/// once and leaves its clock. A disabled event is scheduled and not fired.
///
/// What a delay has beyond whole frames is carried on to the next one, so that an interval keeps its average.
/// @threads as its clock
class ZEL_CORE_API Clock::Event : public Component {
public:
    Event(Callback callback, double interval, double startDelay);
    explicit Event(const Name& name);
    ~Event() override;

    /// Called when a clock has taken the event in, when it lets it go, and when it is reset. For derived
    /// classes: nothing happens by default.
    virtual void start();
    virtual void stop();
    virtual void reset();

    // What is not a number is refused, with a warning, also by the child values. What is infinite waits for
    // ever.

    /// Schedules the event anew.
    void setStartDelay(double delay);
    void setInterval(double interval);
    void setRepeating(bool repeating);
    void setEnable(bool enable);
    [[nodiscard]] double getStartDelay() const noexcept { return m_presentStartDelay; }
    [[nodiscard]] double getInterval() const noexcept { return m_presentInterval; }
    [[nodiscard]] bool isRepeating() const { return m_repeating.get(); }
    [[nodiscard]] bool isEnabled() const { return m_enabled.get(); }

    /// Of the clock's time, in seconds.
    [[nodiscard]] double calculateTimeUntilDispatch() const;
    /// @param timeStep  the step by which the event was scheduled
    [[nodiscard]] double calculateTimeUntilDispatch(double timeStep) const;
    [[nodiscard]] Clock* getClock() const noexcept { return m_clock; }
    [[nodiscard]] size_t getIndex() const noexcept { return m_index; }
    void setIndex(size_t index) noexcept { m_index = index; }
    [[nodiscard]] uint64 getDispatchFrame() const noexcept { return m_dispatchFrame; }
    [[nodiscard]] double getResidual() const noexcept { return m_residual; }
    [[nodiscard]] bool isScheduled() const noexcept { return m_state != State::Idle; }

    /// Reads "startDelay", "interval", "repeating" and "enabled".
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element) override;
    using Component::configure;
    /// An event that leaves its clock's component leaves the clock.
    void setContext(Object* context) override;

private:
    friend class Clock;

    enum class State : uint8 { Idle, Scheduled, Due };

    Event(const Name& name, double interval, double startDelay);
    void valueCallback(zelData::Value* value);
    [[nodiscard]] double timeFrom(uint64 frame, double timeStep) const;

    // What a dispatch reads, side by side.
    uint32 m_slot = 0; // while scheduled; the place in the list of the frame while due
    State m_state = State::Idle;
    bool m_presentlyEnabled = true;
    size_t m_index = InvalidIndex;
    Clock* m_clock = nullptr;

public:
    /// What happens.
    EventT<Callback> callbacks;

private:
    uint64 m_dispatchFrame = 0;
    double m_residual = 0;
    double m_presentInterval = 0;
    double m_presentStartDelay = 0;

    zelData::Val<double> m_startDelay;
    zelData::Val<double> m_interval;
    zelData::Val<bool> m_repeating;
    zelData::Val<bool> m_enabled;
};

} // namespace zel
