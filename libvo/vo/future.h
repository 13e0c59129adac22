#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <zrerror/zrerror.h>

namespace vo {

enum class FutureState { None, Running, FinishedWithValue, FinishedWithError };

template <class T>
class Future;
template <class T>
class Promise;
template <class T>
class FutureSync;

namespace detail {

struct VoidValue {};
template <class T>
using StoredType = std::conditional_t<std::is_void_v<T>, VoidValue, T>;

template <class T>
class SharedState {
 public:
  using Stored = StoredType<T>;
  using Callback = std::function<void()>;

  bool setValue(Stored v) {
    std::vector<Callback> callbacks;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ != FutureState::Running) return false;
      value_.emplace(std::move(v));
      state_ = FutureState::FinishedWithValue;
      callbacks.swap(callbacks_);
    }
    cond_.notify_all();
    for (auto& c : callbacks) c();
    return true;
  }

  bool setError(std::exception_ptr e) {
    std::vector<Callback> callbacks;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ != FutureState::Running) return false;
      error_ = std::move(e);
      state_ = FutureState::FinishedWithError;
      callbacks.swap(callbacks_);
    }
    cond_.notify_all();
    for (auto& c : callbacks) c();
    return true;
  }

  FutureState state() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
  }

  void wait() const {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return state_ != FutureState::Running; });
  }

  FutureState waitFor(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait_for(lock, timeout, [this] { return state_ != FutureState::Running; });
    return state_;
  }

  const Stored& value() const {
    wait();
    // After completion the state never changes again: reading without the lock is safe.
    if (error_) std::rethrow_exception(error_);
    return *value_;
  }

  std::exception_ptr exception() const {
    wait();
    return error_;
  }

  void onFinished(Callback cb) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ == FutureState::Running) {
        callbacks_.push_back(std::move(cb));
        return;
      }
    }
    cb();
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable cond_;
  FutureState state_ = FutureState::Running;
  std::optional<Stored> value_;
  std::exception_ptr error_;
  std::vector<Callback> callbacks_;
};

std::string describeException(const std::exception_ptr& e);

}  // namespace detail

/// The result of an operation that may not have finished yet. Copies share one result.
/// A default-constructed future has no result and never gets one (state None).
///
/// Contract: every member may be called from any number of threads at once. wait() and value()
/// block without a time limit until the result is set; wait(msecs) blocks at most that long and
/// returns the state it found. Continuations (connect) run in the thread that sets the result,
/// outside the future's lock.
template <class T>
class Future {
 public:
  using ValueType = detail::StoredType<T>;

  Future() = default;

  /// An already finished future holding `v` (not for Future<void>; use makeReadyFuture()).
  template <class U = T, std::enable_if_t<!std::is_void_v<U>, int> = 0>
  explicit Future(U v) : state_(std::make_shared<detail::SharedState<T>>()) {
    state_->setValue(std::move(v));
  }

  bool isValid() const { return static_cast<bool>(state_); }
  FutureState state() const { return state_ ? state_->state() : FutureState::None; }
  bool isRunning() const { return state() == FutureState::Running; }
  bool isFinished() const {
    auto s = state();
    return s == FutureState::FinishedWithValue || s == FutureState::FinishedWithError;
  }
  bool hasValue() const { return state() == FutureState::FinishedWithValue; }
  bool hasError() const { return state() == FutureState::FinishedWithError; }

  /// Waits with no time limit.
  void wait() const {
    check();
    state_->wait();
  }
  /// Waits at most `msecs` milliseconds; returns the state then.
  FutureState wait(int msecs) const {
    check();
    return state_->waitFor(std::chrono::milliseconds(msecs));
  }

  /// Waits, then returns the value or rethrows the failure.
  template <class U = T>
  std::enable_if_t<!std::is_void_v<U>, const U&> value() const {
    check();
    return state_->value();
  }
  template <class U = T>
  std::enable_if_t<std::is_void_v<U>> value() const {
    check();
    state_->value();
  }

  /// Waits, then returns the failure's text ("" when it succeeded).
  std::string error() const {
    check();
    return detail::describeException(state_->exception());
  }
  std::exception_ptr exception() const {
    check();
    return state_->exception();
  }

  /// Calls `cb` once the future finishes (at once, in this thread, when it already has);
  /// otherwise in the thread that finishes it.
  void connect(std::function<void(const Future<T>&)> cb) const {
    check();
    Future<T> self = *this;
    state_->onFinished([self, cb = std::move(cb)] { cb(self); });
  }

 private:
  friend class Promise<T>;
  friend class FutureSync<T>;
  explicit Future(std::shared_ptr<detail::SharedState<T>> s) : state_(std::move(s)) {}
  void check() const {
    if (!state_) throw ZR::ZRError("vo", "Future", "this future has no result to wait for");
  }

  std::shared_ptr<detail::SharedState<T>> state_;
};

/// The producing side of a Future. Setting a result twice is ignored.
///
/// Contract: copies share one result; setValue, setError and setException may race from any
/// threads, the first wins. Setting never blocks beyond a short lock, then runs the
/// continuations on the setting thread.
template <class T>
class Promise {
 public:
  Promise() : state_(std::make_shared<detail::SharedState<T>>()) {}

  Future<T> future() const { return Future<T>(state_); }

  template <class U = T, std::enable_if_t<!std::is_void_v<U>, int> = 0>
  bool setValue(U v) {
    return state_->setValue(std::move(v));
  }
  template <class U = T, std::enable_if_t<std::is_void_v<U>, int> = 0>
  bool setValue() {
    return state_->setValue(detail::VoidValue{});
  }
  /// Fails the future with a ZRError carrying `message`.
  bool setError(const std::string& message) {
    return state_->setError(std::make_exception_ptr(ZR::ZRError("vo", "Promise", message)));
  }
  bool setException(std::exception_ptr e) { return state_->setError(std::move(e)); }

 private:
  std::shared_ptr<detail::SharedState<T>> state_;
};

/// A finished Future<void>.
inline Future<void> makeReadyFuture() {
  Promise<void> p;
  p.setValue();
  return p.future();
}

/// A future that must be waited for: when it is destroyed without its result having been taken
/// (value(), wait(), async()), the destructor waits for completion with no time limit and
/// rethrows a failure. Dropping one at once is how a caller blocks until something is ready.
///
/// Contract: owned by one thread (movable, not copyable); hand the result to other threads with
/// async(). Its destructor blocks without a time limit while the result is pending.
template <class T>
class FutureSync {
 public:
  FutureSync() = default;
  FutureSync(Future<T> f) : future_(std::move(f)) {}
  FutureSync(const FutureSync&) = delete;
  FutureSync& operator=(const FutureSync&) = delete;
  FutureSync(FutureSync&& o) noexcept : future_(std::move(o.future_)), taken_(o.taken_) {
    o.taken_ = true;
  }

  ~FutureSync() noexcept(false) {
    if (taken_ || !future_.isValid()) return;
    future_.wait();
    // Never throw while another exception is already unwinding: that would terminate.
    if (future_.hasError() && std::uncaught_exceptions() == 0)
      std::rethrow_exception(future_.exception());
  }

  template <class U = T>
  std::enable_if_t<!std::is_void_v<U>, const U&> value() {
    taken_ = true;
    return future_.value();
  }
  template <class U = T>
  std::enable_if_t<std::is_void_v<U>> value() {
    taken_ = true;
    future_.value();
  }
  void wait() {
    taken_ = true;
    future_.wait();
  }
  FutureState wait(int msecs) {
    taken_ = true;
    return future_.wait(msecs);
  }
  bool hasError() {
    taken_ = true;
    future_.wait();
    return future_.hasError();
  }
  std::string error() {
    taken_ = true;
    return future_.error();
  }
  /// Hands the result over to a plain Future: this one no longer waits when destroyed.
  Future<T> async() {
    taken_ = true;
    return future_;
  }

 private:
  Future<T> future_;
  bool taken_ = false;
};

}  // namespace vo
