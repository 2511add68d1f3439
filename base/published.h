#pragma once
// Observable state: a value that the owning service changes (on the main executor) and
// that views and other services read and subscribe to.
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace vell {

// Keeps a subscription alive; destroying it unsubscribes.
class Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
    Subscription(Subscription&& other) noexcept : cancel_(std::move(other.cancel_)) { other.cancel_ = nullptr; }
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            reset();
            cancel_ = std::move(other.cancel_);
            other.cancel_ = nullptr;
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { reset(); }
    void reset() {
        if (cancel_) cancel_();
        cancel_ = nullptr;
    }

private:
    std::function<void()> cancel_;
};

template <class T>
class Published {
public:
    using Observer = std::function<void(const T&)>;

    Published() : state_(std::make_shared<State>()) {}
    explicit Published(T initial) : state_(std::make_shared<State>()) { state_->value = std::move(initial); }

    T get() const {
        std::lock_guard lock(state_->mutex);
        return state_->value;
    }

    // Stores the value and tells every subscriber, outside the lock.
    void set(T value) {
        std::map<int, Observer> observers;
        T current;
        {
            std::lock_guard lock(state_->mutex);
            state_->value = std::move(value);
            current = state_->value;
            observers = state_->observers;
        }
        for (auto& [id, observer] : observers) observer(current);
    }

    // Changes the value in place; subscribers are told afterwards.
    template <class F>
    void modify(F&& change) {
        T copy = get();
        change(copy);
        set(std::move(copy));
    }

    [[nodiscard]] Subscription subscribe(Observer observer) {
        std::lock_guard lock(state_->mutex);
        int id = ++state_->nextID;
        state_->observers.emplace(id, std::move(observer));
        std::weak_ptr<State> weak = state_;
        return Subscription([weak, id] {
            if (auto state = weak.lock()) {
                std::lock_guard lock(state->mutex);
                state->observers.erase(id);
            }
        });
    }

private:
    struct State {
        mutable std::mutex mutex;
        T value{};
        int nextID = 0;
        std::map<int, Observer> observers;
    };
    std::shared_ptr<State> state_;
};

}  // namespace vell
