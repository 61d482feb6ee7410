// Owners and observers beside the standard library's. A thread has run in this process, so that
// std::shared_ptr counts atomically as well.

#include <zel/Referenced.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

class Body : public zel::Referenced {};
struct PlainBody {};

zel::ref_ptr<Body> makeOwner(zel::ref_ptr<Body>*) {
    return new Body;
}
std::shared_ptr<PlainBody> makeOwner(std::shared_ptr<PlainBody>*) {
    return std::make_shared<PlainBody>();
}
zel::observer_ptr<Body> observe(const zel::ref_ptr<Body>& owner) {
    return zel::observer_ptr<Body>(owner.get());
}
std::weak_ptr<PlainBody> observe(const std::shared_ptr<PlainBody>& owner) {
    return {owner};
}

template <typename Owner>
void copyAndRelease(benchmark::State& state) {
    const Owner owner = makeOwner(static_cast<Owner*>(nullptr));
    for (auto _ : state) {
        Owner copy(owner);
        benchmark::DoNotOptimize(copy);
    }
}

/// As a container does it: a row of copies made, and a row of copies dropped.
template <typename Owner>
void fillAndDrop(benchmark::State& state) {
    constexpr size_t NumCopies = 1000;
    const Owner owner = makeOwner(static_cast<Owner*>(nullptr));
    std::vector<Owner> copies;
    copies.reserve(NumCopies);
    for (auto _ : state) {
        for (size_t i = 0; i < NumCopies; ++i)
            copies.push_back(owner);
        benchmark::DoNotOptimize(copies.data());
        copies.clear();
    }
}

/// Attaches as many observers to one object as the argument says, and detaches them in the same order.
template <typename Owner, typename Observer>
void attachAndDetach(benchmark::State& state) {
    const auto numObservers = static_cast<size_t>(state.range(0));
    const Owner owner = makeOwner(static_cast<Owner*>(nullptr));
    std::vector<Observer> observers(numObservers);
    for (auto _ : state) {
        for (auto& observer : observers)
            observer = observe(owner);
        benchmark::DoNotOptimize(observers.data());
        for (auto& observer : observers)
            observer = Observer();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

int main(int argc, char** argv) {
    std::thread([] {}).join();
    using OurOwner = zel::ref_ptr<Body>;
    using TheirOwner = std::shared_ptr<PlainBody>;
    benchmark::RegisterBenchmark("BM_CopyAndRelease/zel_ref_ptr", copyAndRelease<OurOwner>);
    benchmark::RegisterBenchmark("BM_CopyAndRelease/std_shared_ptr", copyAndRelease<TheirOwner>);
    benchmark::RegisterBenchmark("BM_FillAndDrop/zel_ref_ptr", fillAndDrop<OurOwner>);
    benchmark::RegisterBenchmark("BM_FillAndDrop/std_shared_ptr", fillAndDrop<TheirOwner>);
    for (const int numObservers : {1, 10, 1000}) {
        benchmark::RegisterBenchmark("BM_AttachAndDetach/zel_observer_ptr",
                                     attachAndDetach<OurOwner, zel::observer_ptr<Body>>)
            ->Arg(numObservers);
        benchmark::RegisterBenchmark("BM_AttachAndDetach/std_weak_ptr",
                                     attachAndDetach<TheirOwner, std::weak_ptr<PlainBody>>)
            ->Arg(numObservers);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
