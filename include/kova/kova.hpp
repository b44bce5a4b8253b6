/*
 * libkova-api for C++: a header-only layer over the C API of <kova_api.h>.
 *
 * C++17; needs no exceptions (it builds with -fno-exceptions) and exports
 * nothing: it uses only the library's exported C functions and, for service
 * presence, GIO. Every call that can fail returns a kova::Result, holding
 * either a value or the C API's failure code (its int result, -1 unless a
 * function says otherwise); Result is [[nodiscard]], so that a subscription
 * cannot be dropped (and undone) by accident.
 *
 * Strings: every string parameter is a kova::StringArg, which takes a C
 * string, a std::string or a std::string_view. A null C string reaches the C
 * API as null and comes back as its failure, never as a crash.
 *
 * Subscriptions are values. Each on_* function takes any callable (lambdas
 * with captures included, move-only ones too) and returns a move-only
 * kova::Subscription. The closure lives exactly as long as the subscription:
 * destroying (or reset()) the subscription unregisters it with the C API's
 * barrier and destroys the closure. Once that returns on a thread other than
 * the one delivering callbacks, the callable is not running and will not
 * start. Destroyed from inside its own callback it returns at once and the
 * closure goes when the callable returns. The one rule, as in C: a callback
 * must not wait for a thread that is destroying that same subscription. A
 * moved-from or default-constructed subscription does nothing.
 *
 * Callbacks run as the C API's do: on the thread that iterates the
 * thread-default main context of the subscribing thread, while a main loop
 * runs there. A callable must not throw: the trampolines are noexcept, so an
 * exception escaping a callable ends the process instead of unwinding
 * through GLib.
 *
 * After a restart of the kova service every registration with the service
 * is forgotten (see the C header); kova::watch_service tells when the
 * service appears and vanishes, and says what a player does then.
 */
#ifndef KOVA_KOVA_HPP
#define KOVA_KOVA_HPP

#include <gio/gio.h>
#include <kova_api.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace kova {

// ---------------------------------------------------------------- results

/* A value, or the C API's failure code. */
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT: a value converts implicitly
  static Result failure(int code) { return Result(code, 0); }
  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }
  /* The failure code; 0 for a value. */
  int error() const { return ok() ? 0 : code_; }
  /* The value. Asking a failure for it ends the process (there is nothing to
   * throw): check ok() first. On a temporary it is returned by value, so that
   * `for (auto &z : ZoneList::fetch().value())` holds the list for the loop. */
  T &value() & {
    checked();
    return *value_;
  }
  const T &value() const & {
    checked();
    return *value_;
  }
  T value() && {
    checked();
    return std::move(*value_);
  }
  T value_or(T other) const & { return ok() ? *value_ : std::move(other); }
  T value_or(T other) && { return ok() ? std::move(*value_) : std::move(other); }
  /* Unchecked access, as with std::optional. */
  T &operator*() & { return *value_; }
  const T &operator*() const & { return *value_; }
  T *operator->() { return &*value_; }
  const T *operator->() const { return &*value_; }

 private:
  Result(int code, int) : code_(code) {}
  void checked() const {
    if (!ok()) std::abort();
  }
  std::optional<T> value_;
  int code_ = 0;
};

/* Success, or the C API's failure code. */
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  static Result failure(int code) {
    Result r;
    r.code_ = code;
    r.ok_ = false;
    return r;
  }
  bool ok() const { return ok_; }
  explicit operator bool() const { return ok_; }
  int error() const { return ok_ ? 0 : code_; }

 private:
  bool ok_ = true;
  int code_ = 0;
};

/* 0 as success, anything else as that failure. */
inline Result<void> check(int result) { return result == 0 ? Result<void>() : Result<void>::failure(result); }

// ---------------------------------------------------------------- strings

/* A string parameter: a C string (null included, passed on as null so that
 * the C API refuses it as it does in C), a std::string, or a std::string_view
 * (copied, since the C API needs a terminating NUL; one without data counts
 * as null). It may point into its argument, so it exists only as a
 * parameter: it cannot be copied. */
class StringArg {
 public:
  StringArg(const char *s) : s_(s) {}                 // NOLINT: converts implicitly
  StringArg(const std::string &s) : s_(s.c_str()) {}  // NOLINT: converts implicitly
  StringArg(std::string_view s)                       // NOLINT: converts implicitly
      : copy_(s.data() != nullptr ? std::optional<std::string>(s) : std::nullopt),
        s_(copy_ ? copy_->c_str() : nullptr) {}
  StringArg(const StringArg &) = delete;
  StringArg &operator=(const StringArg &) = delete;
  /* The C string, or null. */
  const char *c_str() const { return s_; }

 private:
  std::optional<std::string> copy_;
  const char *s_;
};

// ---------------------------------------------------------- typed values

/* The header's values; any other int of the service converts both ways
 * unchanged (static_cast from int, to_c or static_cast back). */
enum class AudioOut : int { Main = KOVA_AUDIO_OUT_MAIN };
enum class PlayerAudioOut : int {
  None = KOVA_PLAYER_AUDIO_OUT_NONE,
  Main = KOVA_PLAYER_AUDIO_OUT_MAIN,
  Sub = KOVA_PLAYER_AUDIO_OUT_SUB
};
enum class LayoutState : int {
  None = KOVA_LAYOUT_STATE_NONE,
  Single = KOVA_LAYOUT_STATE_SINGLE,
  Multiview = KOVA_LAYOUT_STATE_MULTIVIEW,
  Changing = KOVA_LAYOUT_STATE_CHANGING
};
enum class Policy : int {
  Default = KOVA_RSC_POLICY_DEFAULT,
  Multiview = KOVA_RSC_POLICY_MULTIVIEW,
  Game = KOVA_RSC_POLICY_GAME
};
enum class Codec : int {
  H264 = KOVA_VIDEO_CODEC_H264,
  Hevc = KOVA_VIDEO_CODEC_HEVC,
  Vp9 = KOVA_VIDEO_CODEC_VP9,
  Av1 = KOVA_VIDEO_CODEC_AV1
};

constexpr kova_audio_out_e to_c(AudioOut v) { return static_cast<kova_audio_out_e>(v); }
constexpr kova_player_audio_out_e to_c(PlayerAudioOut v) { return static_cast<kova_player_audio_out_e>(v); }
constexpr kova_layout_state_e to_c(LayoutState v) { return static_cast<kova_layout_state_e>(v); }
constexpr kova_rsc_policy_e to_c(Policy v) { return static_cast<kova_rsc_policy_e>(v); }
constexpr kova_video_codec_e to_c(Codec v) { return static_cast<kova_video_codec_e>(v); }

// ------------------------------------------------------------ subscriptions

namespace detail {

template <typename Fn>
bool empty_callable(const Fn &fn) {
  if constexpr (std::is_constructible_v<bool, const Fn &>) {
    return !static_cast<bool>(fn);
  } else {
    return false;
  }
}

/* One registration's closure, handed to the C API as user data. It counts
 * the calls running on each thread, so that a subscription destroyed from
 * inside its own callback leaves the closure to the trampoline, which frees
 * it when the callable returns. */
template <typename Fn>
class Box {
 public:
  explicit Box(Fn fn) : fn_(std::move(fn)) {}

  template <typename... A>
  static void Call(void *box, A &&...args) noexcept {
    auto *b = static_cast<Box *>(box);
    {
      std::lock_guard<std::mutex> lock(b->mutex_);
      b->running_.push_back(std::this_thread::get_id());
    }
    b->fn_(std::forward<A>(args)...);
    bool orphan = false;
    {
      std::lock_guard<std::mutex> lock(b->mutex_);
      b->running_.erase(std::find(b->running_.begin(), b->running_.end(), std::this_thread::get_id()));
      orphan = b->orphan_ && b->running_.empty();
    }
    if (orphan) delete b;
  }

  /* After the C unregistration, whose barrier leaves only calls on this
   * thread: frees the box now, or leaves it to the call running here. */
  static void Release(void *box) noexcept {
    auto *b = static_cast<Box *>(box);
    {
      std::lock_guard<std::mutex> lock(b->mutex_);
      if (!b->running_.empty()) {
        b->orphan_ = true;
        return;
      }
    }
    delete b;
  }

 private:
  Fn fn_;
  std::mutex mutex_;
  std::vector<std::thread::id> running_;
  bool orphan_ = false;
};

/* What a subscription undoes: one per registration. */
class Slot {
 public:
  virtual ~Slot() = default;
};

/* A C registration of its own: unregistered, then its closure released. */
template <typename Fn>
class BoxSlot final : public Slot {
 public:
  BoxSlot(Box<Fn> *box, std::function<void()> unregister) : box_(box), unregister_(std::move(unregister)) {}
  ~BoxSlot() override {
    unregister_();
    Box<Fn>::Release(box_);
  }

 private:
  Box<Fn> *box_;
  std::function<void()> unregister_;
};

}  // namespace detail

/* A registration, undone when destroyed. Move-only; assigning over an active
 * subscription undoes the old one first. */
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::unique_ptr<detail::Slot> slot) : slot_(std::move(slot)) {}
  Subscription(Subscription &&) noexcept = default;
  Subscription &operator=(Subscription &&) noexcept = default;
  Subscription(const Subscription &) = delete;
  Subscription &operator=(const Subscription &) = delete;
  ~Subscription() = default;

  /* Unregisters now (with the barrier described at the top). */
  void reset() { slot_.reset(); }
  bool active() const { return slot_ != nullptr; }

 private:
  std::unique_ptr<detail::Slot> slot_;
};

namespace detail {

/* The families with one C subscription per registration, handle in hand. */
template <typename Fn, typename CallbackType>
Result<Subscription> by_handle(Fn fn, unsigned int (*reg)(CallbackType, void *), int (*unreg)(unsigned int),
                               CallbackType trampoline, unsigned int failed) {
  if (empty_callable(fn)) return Result<Subscription>::failure(-1);
  auto *box = new Box<Fn>(std::move(fn));
  const unsigned int id = reg(trampoline, box);
  if (id == 0 || id == failed) {
    delete box;
    return Result<Subscription>::failure(-1);
  }
  return Subscription(std::make_unique<BoxSlot<Fn>>(box, [unreg, id] { unreg(id); }));
}

template <typename Fn>
void player_trampoline(int player_id, void *box) noexcept {
  Box<Fn>::Call(box, player_id);
}

}  // namespace detail

/* Player requests: fn(int player_id) for every request of the kind, whichever
 * player it names (the C API does not filter). */
template <typename Fn>
Result<Subscription> on_video_start(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_player_video_start_request_callback,
                           kova_unregister_player_video_start_request_callback,
                           &detail::player_trampoline<Fn>, UINT_MAX);
}
template <typename Fn>
Result<Subscription> on_video_stop(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_player_video_stop_request_callback,
                           kova_unregister_player_video_stop_request_callback,
                           &detail::player_trampoline<Fn>, UINT_MAX);
}
template <typename Fn>
Result<Subscription> on_audio_start(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_player_audio_start_request_callback,
                           kova_unregister_player_audio_start_request_callback,
                           &detail::player_trampoline<Fn>, UINT_MAX);
}
template <typename Fn>
Result<Subscription> on_audio_stop(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_player_audio_stop_request_callback,
                           kova_unregister_player_audio_stop_request_callback,
                           &detail::player_trampoline<Fn>, UINT_MAX);
}
template <typename Fn>
Result<Subscription> on_audio_resync(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_player_audio_resync_request_callback,
                           kova_unregister_player_audio_resync_request_callback,
                           &detail::player_trampoline<Fn>, UINT_MAX);
}

/* Audio focus changes: fn(int zone_id). */
template <typename Fn>
Result<Subscription> on_audio_focus_changed(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_audio_focus_changed_callback,
                           kova_unregister_audio_focus_changed_callback, &detail::player_trampoline<Fn>, UINT_MAX);
}

/* A zone read through its fields; a view, valid as long as its zone. */
class Zone {
 public:
  explicit Zone(const kova_zone *z) : z_(z) {}
  int id() const { return z_->id; }
  int scaler_id() const { return z_->scaler_id; }
  /* Empty when no application is in the zone. */
  std::string_view app_id() const { return z_->app_id != nullptr ? z_->app_id : ""; }
  const kova_zone *get() const { return z_; }

 private:
  const kova_zone *z_;
};

namespace detail {
template <typename Fn>
void zone_trampoline(kova_zone *zone, void *box) noexcept {
  Box<Fn>::Call(box, Zone(zone));
}
}  // namespace detail

/* Audio focus zone changes: fn(kova::Zone), the zone valid during the call. */
template <typename Fn>
Result<Subscription> on_audio_focus_zone_changed(Fn fn) {
  return detail::by_handle(std::move(fn), kova_subscribe_audio_focus_zone_changed,
                           kova_unsubscribe_audio_focus_zone_changed, &detail::zone_trampoline<Fn>, 0u);
}

/* A policy change as its callback sees it; the ids are valid during the call. */
struct PolicyChange {
  Policy policy;
  struct App {
    int zone_id;
    std::string_view app_id;
  };
  std::vector<App> apps;
};

namespace detail {
template <typename Fn>
void policy_trampoline(kova_policy_info *info, void *box) noexcept {
  PolicyChange change{static_cast<Policy>(kova_policy_info_get_policy(info)), {}};
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  const int count = kova_app_list_get_count(list);
  for (int i = 0; i < count; ++i) {  // by the count: no error line past the last
    kova_app *app = i == 0 ? kova_app_list_get_first(list) : kova_app_list_get_next(list);
    change.apps.push_back({kova_app_get_zone_id(app), kova_app_get_app_id(app)});
  }
  Box<Fn>::Call(box, static_cast<const PolicyChange &>(change));
}
}  // namespace detail

/* Policy changes: fn(const kova::PolicyChange &). */
template <typename Fn>
Result<Subscription> on_policy_changed(Fn fn) {
  return detail::by_handle(std::move(fn), kova_register_resource_policy_changed_callback,
                           kova_unregister_resource_policy_changed_callback, &detail::policy_trampoline<Fn>,
                           UINT_MAX);
}

namespace detail {

/* The per-application registries: one callback per application id, which
 * the subscription keeps to unregister it. */
template <typename Fn, typename CallbackType>
Result<Subscription> by_app(const StringArg &app_id, Fn fn, int (*reg)(const char *, CallbackType, void *),
                            int (*unreg)(const char *, CallbackType), CallbackType trampoline) {
  if (empty_callable(fn)) return Result<Subscription>::failure(-1);
  auto *box = new Box<Fn>(std::move(fn));
  const int r = reg(app_id.c_str(), trampoline, box);
  if (r != 0) {
    delete box;
    return Result<Subscription>::failure(r);
  }
  return Subscription(std::make_unique<BoxSlot<Fn>>(
      box, [unreg, id = std::string(app_id.c_str()), trampoline] { unreg(id.c_str(), trampoline); }));
}

template <typename Fn>
void resource_trampoline(const char *app_id, kova_resource *r, void *box) noexcept {
  Box<Fn>::Call(box, std::string_view(app_id), static_cast<const kova_resource &>(*r));
}
template <typename Fn>
void max_resolution_trampoline(const char *app_id, int width, int height, int framerate, void *box) noexcept {
  Box<Fn>::Call(box, std::string_view(app_id), width, height, framerate);
}

}  // namespace detail

/* Resource changes of app_id: fn(std::string_view app_id, const kova_resource &).
 * One subscription per application id (the C registry's rule): a second one
 * fails while the first lives. */
template <typename Fn>
Result<Subscription> on_resource_changed(const StringArg &app_id, Fn fn) {
  return detail::by_app(app_id, std::move(fn), kova_register_resource_change_callback,
                        kova_unregister_resource_change_callback, &detail::resource_trampoline<Fn>);
}

/* Maximum-resolution changes of app_id: fn(std::string_view app_id, int width,
 * int height, int framerate). One subscription per application id. */
template <typename Fn>
Result<Subscription> on_max_resolution_changed(const StringArg &app_id, Fn fn) {
  return detail::by_app(app_id, std::move(fn), kova_register_max_video_resolution_changed_callback,
                        kova_unregister_max_video_resolution_changed_callback, &detail::max_resolution_trampoline<Fn>);
}

namespace detail {

/* Best-quality switches. The C registry is keyed by the callback's address,
 * so every C++ subscription shares one C registration of one trampoline,
 * made by the first; the C++ list keeps the C registry's delivery rules: a
 * subscription made during a delivery is first called for the next one, one
 * destroyed before its turn is skipped, and destroying one whose callable
 * runs on another thread waits for it. mutex_ is never held while a callable
 * runs or the C API is called.
 *
 * When the last subscription goes, the C registration is dropped at once if
 * no delivery is under way. Otherwise it is dropped just after the delivery,
 * from an idle callback of the main context that delivered it: dropping it
 * on another thread during the delivery would wait for the trampoline while
 * holding c_mutex_, which a callable making a subscription needs, and the C
 * registry keeps its bus subscription when its last callback goes during a
 * delivery. */
class BestQuality {
 public:
  struct Entry {
    void *box;
    void (*call)(void *, int, int, int) noexcept;
    void (*release)(void *) noexcept;
    bool active = true;
    std::vector<std::thread::id> running;  // threads calling it now
  };

  static BestQuality &get() {
    static BestQuality *registry = new BestQuality();  // outlives every subscription
    return *registry;
  }

  int add(const std::shared_ptr<Entry> &entry) {
    std::lock_guard<std::mutex> c_calls(c_mutex_);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      entries_.push_back(entry);
      if (registered_) return 0;
    }
    const int r = kova_register_best_quality_zone_switched_callback(&BestQuality::trampoline, nullptr);
    std::lock_guard<std::mutex> lock(mutex_);
    if (r != 0) {
      entries_.remove(entry);
      return r;
    }
    registered_ = true;
    return 0;
  }

  void remove(const std::shared_ptr<Entry> &entry) {
    const std::thread::id self = std::this_thread::get_id();
    bool last = false;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      entry->active = false;
      entries_.remove(entry);
      idle_.wait(lock, [&] {
        return std::all_of(entry->running.begin(), entry->running.end(), [&](std::thread::id t) { return t == self; });
      });
      last = entries_.empty();
    }
    entry->release(entry->box);
    if (last) drop_if_unused();
  }

 private:
  static void trampoline(int first, int second, int third, void *) noexcept {
    BestQuality &r = get();
    const std::thread::id self = std::this_thread::get_id();
    std::vector<std::shared_ptr<Entry>> snapshot;
    {
      std::lock_guard<std::mutex> lock(r.mutex_);
      ++r.deliveries_;
      snapshot.assign(r.entries_.begin(), r.entries_.end());
    }
    for (const std::shared_ptr<Entry> &e : snapshot) {
      {
        std::lock_guard<std::mutex> lock(r.mutex_);
        if (!e->active) continue;
        e->running.push_back(self);
      }
      e->call(e->box, first, second, third);
      std::lock_guard<std::mutex> lock(r.mutex_);
      e->running.erase(std::find(e->running.begin(), e->running.end(), self));
      r.idle_.notify_all();
    }
    r.end_delivery();
  }

  void end_delivery() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (--deliveries_ > 0 || !drop_after_) return;
      drop_after_ = false;
    }
    GSource *current = g_main_current_source();
    GSource *idle = g_idle_source_new();
    g_source_set_callback(
        idle,
        [](gpointer) noexcept -> gboolean {
          get().drop_if_unused();
          return G_SOURCE_REMOVE;
        },
        nullptr, nullptr);
    g_source_attach(idle, current != nullptr ? g_source_get_context(current) : g_main_context_get_thread_default());
    g_source_unref(idle);
  }

  void drop_if_unused() {
    std::lock_guard<std::mutex> c_calls(c_mutex_);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!entries_.empty() || !registered_) return;
      if (deliveries_ > 0) {
        drop_after_ = true;
        return;
      }
      registered_ = false;
    }
    kova_unregister_best_quality_zone_switched_callback(&BestQuality::trampoline);
  }

  std::mutex c_mutex_;  // serialises the C registration and its drop; before mutex_
  std::mutex mutex_;
  std::condition_variable idle_;
  std::list<std::shared_ptr<Entry>> entries_;
  bool registered_ = false;   // the C registration is in place
  int deliveries_ = 0;        // trampolines under way
  bool drop_after_ = false;   // the C registration goes after the deliveries
};

class BestQualitySlot final : public Slot {
 public:
  explicit BestQualitySlot(std::shared_ptr<BestQuality::Entry> entry) : entry_(std::move(entry)) {}
  ~BestQualitySlot() override { BestQuality::get().remove(entry_); }

 private:
  std::shared_ptr<BestQuality::Entry> entry_;
};

}  // namespace detail

/* Best-quality zone switches: fn(int first, int second, int third), the
 * service's three integers in its order. All such subscriptions share one C
 * registration, so their callbacks run on the thread-default main context of
 * the thread that made the first of those alive at the time. */
template <typename Fn>
Result<Subscription> on_best_quality_zone_switched(Fn fn) {
  if (detail::empty_callable(fn)) return Result<Subscription>::failure(-1);
  auto entry = std::make_shared<detail::BestQuality::Entry>();
  entry->box = new detail::Box<Fn>(std::move(fn));
  entry->call = [](void *box, int first, int second, int third) noexcept {
    detail::Box<Fn>::Call(box, first, second, third);
  };
  entry->release = &detail::Box<Fn>::Release;
  if (const int r = detail::BestQuality::get().add(entry); r != 0) {
    delete static_cast<detail::Box<Fn> *>(entry->box);
    return Result<Subscription>::failure(r);
  }
  return Subscription(std::make_unique<detail::BestQualitySlot>(std::move(entry)));
}

// ------------------------------------------------------------ service presence

/* Watches the kova service's bus name "org.zelta.tv.system.resource" on the
 * system bus, through the process's shared system-bus connection (the one
 * the library uses), without changing it. The callable gets true when the
 * name has an owner (also at once if the service is already there) and false
 * when it has none. Callbacks run on the thread-default main context of the
 * creating thread; create and destroy a Presence on that thread. Destroying
 * it, also from inside its own callback, stops the calls; the closure goes
 * when GIO releases it (after a running call returns).
 *
 * What a player does with it: on false, nothing is registered with the
 * service any more. On true after a false (a restarted service), register
 * the player again (register_player, then request_play as at the start) and
 * re-create the per-application subscriptions (on_resource_changed,
 * on_max_resolution_changed): destroy the old one first, since the library
 * still holds its entry and a second one for the same id fails. The other
 * subscriptions match the service's signals from any sender and keep
 * working. */
class Presence {
 public:
  Presence() = default;
  template <typename Fn>
  explicit Presence(Fn fn) {
    if (detail::empty_callable(fn)) return;
    id_ = g_bus_watch_name(G_BUS_TYPE_SYSTEM, "org.zelta.tv.system.resource", G_BUS_NAME_WATCHER_FLAGS_NONE,
                           &Presence::appeared<Fn>, &Presence::vanished<Fn>, new Fn(std::move(fn)),
                           &Presence::destroy<Fn>);
  }
  Presence(Presence &&o) noexcept : id_(std::exchange(o.id_, 0)) {}
  Presence &operator=(Presence &&o) noexcept {
    if (this != &o) {
      reset();
      id_ = std::exchange(o.id_, 0);
    }
    return *this;
  }
  Presence(const Presence &) = delete;
  Presence &operator=(const Presence &) = delete;
  ~Presence() { reset(); }

  void reset() {
    if (id_ != 0) g_bus_unwatch_name(std::exchange(id_, 0));
  }
  bool active() const { return id_ != 0; }

 private:
  template <typename Fn>
  static void appeared(GDBusConnection *, const gchar *, const gchar *, gpointer fn) noexcept {
    (*static_cast<Fn *>(fn))(true);
  }
  template <typename Fn>
  static void vanished(GDBusConnection *, const gchar *, gpointer fn) noexcept {
    (*static_cast<Fn *>(fn))(false);
  }
  template <typename Fn>
  static void destroy(gpointer fn) noexcept {
    delete static_cast<Fn *>(fn);
  }

  guint id_ = 0;
};

/* Presence of the service: fn(bool present). An empty callable gives an
 * inactive Presence. */
template <typename Fn>
Presence watch_service(Fn fn) {
  return Presence(std::move(fn));
}

// ----------------------------------------------------------------- zones

/* A zone owned by the caller, freed with it. */
class OwnedZone {
 public:
  explicit OwnedZone(kova_zone *z) : z_(z) {}
  Zone operator*() const { return Zone(z_.get()); }
  int id() const { return z_->id; }
  int scaler_id() const { return z_->scaler_id; }
  std::string_view app_id() const { return Zone(z_.get()).app_id(); }

 private:
  struct Free {
    void operator()(kova_zone *z) const { kova_zone_free(z); }
  };
  std::unique_ptr<kova_zone, Free> z_;
};

/* The focused zone and the audio focus zone. */
inline Result<OwnedZone> focused_zone() {
  kova_zone *z = nullptr;
  const int r = kova_get_focused_zone(&z);
  if (r != 0) return Result<OwnedZone>::failure(r);
  return OwnedZone(z);
}
inline Result<OwnedZone> audio_focus_zone() {
  kova_zone *z = nullptr;
  const int r = kova_get_audio_focus_zone(&z);
  if (r != 0) return Result<OwnedZone>::failure(r);
  return OwnedZone(z);
}

/* A zone list: a range of kova::Zone in the service's order, usable in
 * range-for as often as wanted; freed with it. No zones is a failure (-1),
 * as in C. */
class ZoneList {
 public:
  using const_iterator = std::vector<Zone>::const_iterator;

  static Result<ZoneList> fetch() { return from(kova_get_zone_list); }
  /* The multi-view list, whose zones report scaler id 0. */
  static Result<ZoneList> fetch_multiview() { return from(kova_get_multiview_zone_list); }

  const_iterator begin() const { return zones_.begin(); }
  const_iterator end() const { return zones_.end(); }
  size_t size() const { return zones_.size(); }
  bool empty() const { return zones_.empty(); }
  const Zone &operator[](size_t i) const { return zones_[i]; }

 private:
  struct Free {
    void operator()(void *l) const { kova_free_zone_list(l); }
  };
  static Result<ZoneList> from(int (*get)(void **)) {
    void *handle = nullptr;
    const int r = get(&handle);
    if (r != 0) return Result<ZoneList>::failure(r);
    ZoneList list;
    list.list_.reset(handle);
    kova_zone *z = nullptr;
    while (kova_get_next_zone(handle, &z) == 0) list.zones_.emplace_back(z);
    return list;
  }
  std::unique_ptr<void, Free> list_;
  std::vector<Zone> zones_;
};

// ------------------------------------------------------- application lists

/* An application list built fluently, also as a temporary:
 *   kova::AppList().add(1, "a.app").add_priorities("b.app", 2, 3)
 * An application the C API refuses (a null or non-UTF-8 id) is left out and
 * the first such failure kept in status(); a list with a failure is not sent
 * (the sends below return that failure). Freed with the object. */
class AppList {
 public:
  AppList() : list_(kova_app_list_create_new()) {}
  AppList(AppList &&o) noexcept : list_(std::exchange(o.list_, nullptr)), status_(o.status_) {}
  AppList &operator=(AppList &&o) noexcept {
    if (this != &o) {
      free();
      list_ = std::exchange(o.list_, nullptr);
      status_ = o.status_;
    }
    return *this;
  }
  AppList(const AppList &) = delete;
  AppList &operator=(const AppList &) = delete;
  ~AppList() { free(); }

  /* An application in a zone, priorities 0. */
  AppList &add(int zone_id, const StringArg &app_id) & {
    if (list_ == nullptr || kova_app_list_add(list_, zone_id, app_id.c_str()) == nullptr) fail();
    return *this;
  }
  AppList &&add(int zone_id, const StringArg &app_id) && { return std::move(add(zone_id, app_id)); }
  /* An application with its video and audio priorities, zone 0. */
  AppList &add_priorities(const StringArg &app_id, int video, int audio) & {
    kova_app *app = list_ != nullptr ? kova_app_list_create_new_app(app_id.c_str()) : nullptr;
    if (app == nullptr) {
      fail();
      return *this;
    }
    kova_app_set_priority_video(app, video);
    kova_app_set_priority_audio(app, audio);
    kova_app_list_insert_app(list_, app);
    return *this;
  }
  AppList &&add_priorities(const StringArg &app_id, int video, int audio) && {
    return std::move(add_priorities(app_id, video, audio));
  }

  size_t size() const { return list_ != nullptr ? static_cast<size_t>(kova_app_list_get_count(list_)) : 0; }
  Result<void> status() const { return status_; }
  /* The C handle, still owned here (null once handed on). */
  kova_app_list_h get() const { return list_; }
  /* Hands the C handle over: the caller frees it. */
  kova_app_list_h release() { return std::exchange(list_, nullptr); }

 private:
  void fail() {
    if (status_) status_ = Result<void>::failure(-1);
  }
  void free() {
    if (list_ != nullptr) kova_app_list_free(list_);
  }
  kova_app_list_h list_;
  Result<void> status_;
};

/* A policy info record, built fluently and freed with the object:
 *   kova::PolicyInfo("owner").apps(kova::AppList().add(1, "a.app")).apply(kova::Policy::Game)
 * The first failure (a refused owner name, a list refused by the record or
 * built with a failure) is kept in status() and returned by apply() without
 * sending anything. */
class PolicyInfo {
 public:
  explicit PolicyInfo(const StringArg &owner_name) : info_(kova_policy_info_create_new(owner_name.c_str())) {
    if (!info_) note(-1);
  }

  /* Attaches list, which the record owns from then on (list is left empty).
   * A list the record refuses stays list's. */
  PolicyInfo &apps(AppList &&list) & {
    if (!info_) return *this;
    const int r = kova_policy_info_set_app_list(info_.get(), list.get());
    if (r != 0) {
      note(r);
    } else {
      list.release();
      if (!list.status()) note(list.status().error());
    }
    return *this;
  }
  PolicyInfo &&apps(AppList &&list) && { return std::move(apps(std::move(list))); }
  PolicyInfo &remove_all_current_apps(bool remove_all = true) & {
    if (info_) kova_policy_info_set_option_remove_all_current_apps(info_.get(), remove_all);
    return *this;
  }
  PolicyInfo &&remove_all_current_apps(bool remove_all = true) && {
    return std::move(remove_all_current_apps(remove_all));
  }

  Result<void> status() const { return status_; }
  /* Sets the resource policy on behalf of this record's owner. */
  Result<void> apply(Policy policy) const {
    if (!status_) return status_;
    return check(kova_set_resource_policy(static_cast<int>(policy), info_.get()));
  }
  kova_policy_info *get() const { return info_.get(); }

 private:
  void note(int code) {
    if (status_) status_ = Result<void>::failure(code);
  }
  struct Free {
    void operator()(kova_policy_info *p) const { kova_policy_info_free(p); }
  };
  std::unique_ptr<kova_policy_info, Free> info_;
  Result<void> status_;
};

// -------------------------------------------------------------- plain calls

/* Player lifecycle. register_player gives the player id back. */
inline Result<int> register_player(int player_id, int value = 0) {
  const int r = kova_player_register(player_id, value);
  if (r != player_id) return Result<int>::failure(-1);
  return r;
}
inline Result<void> unregister_player(int player_id) { return check(kova_player_unregister(player_id)); }
inline Result<void> request_stop(int player_id) { return check(kova_player_request_stop(player_id)); }
inline Result<AudioOut> request_play(int player_id) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  const int r = kova_player_request_play(player_id, &out);
  if (r != 0) return Result<AudioOut>::failure(r);
  return static_cast<AudioOut>(out);
}
inline Result<PlayerAudioOut> player_audio_out(int player_id) {
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  const int r = kova_get_player_audio_out(player_id, &out);
  if (r != 0) return Result<PlayerAudioOut>::failure(r);
  return static_cast<PlayerAudioOut>(out);
}
/* The acknowledgements return the service's integer, which may be negative. */
inline int video_start_done(int player_id) { return kova_player_video_start_done(player_id); }
inline int video_stop_done(int player_id) { return kova_player_video_stop_done(player_id); }
inline int audio_start_done(int player_id) { return kova_player_audio_start_done(player_id); }
inline int audio_stop_done(int player_id) { return kova_player_audio_stop_done(player_id); }

/* External speakers: the service's integer (which may be negative), or the
 * failure -1 for a refused argument or a failed call. */
inline Result<int> register_speaker(const StringArg &name, int value) {
  const int r = kova_extspk_info_register(name.c_str(), value);
  return r == -1 ? Result<int>::failure(-1) : Result<int>(r);
}
inline Result<int> unregister_speaker(const StringArg &name, int value) {
  const int r = kova_extspk_info_unregister(name.c_str(), value);
  return r == -1 ? Result<int>::failure(-1) : Result<int>(r);
}
inline Result<AudioOut> speaker_audio_out(const StringArg &name) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  const int r = kova_get_extspk_info_audio_out(name.c_str(), &out);
  if (r != 0) return Result<AudioOut>::failure(r);
  return static_cast<AudioOut>(out);
}

/* Zone assignment and layout: 0 from the service is success. */
inline Result<void> assign_app_to_zone(const StringArg &app_id, int zone_id) {
  return check(kova_set_app_zone_info(app_id.c_str(), zone_id));
}
inline Result<void> remove_app_from_zone(const StringArg &app_id, int zone_id) {
  return check(kova_remove_app_zone_info(app_id.c_str(), zone_id));
}
inline Result<void> pre_assign_app_to_zone(const StringArg &app_id, int zone_id) {
  return check(kova_set_pre_assigned_app_zone_info(app_id.c_str(), zone_id));
}
/* Sent without waiting for the service. */
inline Result<void> mark_app_removable(const StringArg &app_id, int zone_id) {
  return check(kova_set_removable_app_zone_info(app_id.c_str(), zone_id));
}
inline Result<void> clear_removable_apps() { return check(kova_clear_removable_app_zone_info()); }
inline Result<void> notify_layout_state(LayoutState state) { return check(kova_notify_layout_state(to_c(state))); }

/* The best-quality zone: the service's integer, or the failure -1 for a
 * refused argument or a failed call. */
inline Result<int> switch_best_quality_zone(int first, int second) {
  const int r = kova_switch_best_quality_zone(first, second);
  return r == -1 ? Result<int>::failure(-1) : Result<int>(r);
}
inline Result<int> restore_best_quality_zone() {
  const int r = kova_restore_best_quality_zone();
  return r == -1 ? Result<int>::failure(-1) : Result<int>(r);
}

/* Audio focus: a zone id; no focus (the service's 0) is a failure, as in C. */
inline Result<void> set_audio_focus(int zone_id) { return check(kova_set_audio_focus(zone_id)); }
inline Result<int> audio_focus() {
  int focus = 0;
  const int r = kova_get_audio_focus(&focus);
  if (r != 0) return Result<int>::failure(r);
  return focus;
}
inline Result<int> last_audio_focus() {
  int focus = 0;
  const int r = kova_get_last_audio_focus(&focus);
  if (r != 0) return Result<int>::failure(r);
  return focus;
}
/* The service's integer, unchanged; -1 for a null id or a failed call. */
inline int is_audio_focused(const StringArg &app_id) { return kova_is_audio_focused(app_id.c_str()); }

/* A maximum video resolution. */
struct Resolution {
  int width = 0;
  int height = 0;
  int framerate = 0;
};
inline Result<Resolution> max_video_resolution(const StringArg &app_id) {
  Resolution r;
  const int result = kova_get_max_video_resolution(app_id.c_str(), &r.width, &r.height, &r.framerate);
  if (result != 0) return Result<Resolution>::failure(result);
  return r;
}
inline Result<Resolution> policy_max_resolution(Policy policy, Codec codec) {
  Resolution r;
  const int result = kova_policy_get_max_resolution(to_c(policy), to_c(codec), &r.width, &r.height, &r.framerate);
  if (result != 0) return Result<Resolution>::failure(result);
  return r;
}
/* The category to use: the requested one or the service's answer; -1 (a
 * failed call) and -4 (an invalid request while a policy is active) as
 * failures. app_id may be null, as in C. */
inline Result<int> capable_category(int player_id, const StringArg &app_id, int category) {
  const int r = kova_get_capable_category_id(player_id, app_id.c_str(), category);
  return r == -1 || r == -4 ? Result<int>::failure(r) : Result<int>(r);
}

/* The resource policy without an owner, and the list-carrying sends. The
 * lists stay the caller's; one whose building failed is not sent. */
inline Result<void> set_policy_internal(Policy policy) {
  return check(kova_set_resource_policy_internal(static_cast<int>(policy)));
}
inline Result<void> set_policy_app_zones(Policy policy, const AppList &apps) {
  if (!apps.status()) return apps.status();
  return check(kova_set_resource_policy_app_zone_info(static_cast<int>(policy), apps.get()));
}
inline Result<void> set_pre_assigned_apps(const AppList &apps) {
  if (!apps.status()) return apps.status();
  return check(kova_set_pre_assigned_app_list(apps.get()));
}
inline Result<void> register_app_list(int list_type, const AppList &apps) {
  if (!apps.status()) return apps.status();
  return check(kova_register_app_list(list_type, apps.get()));
}
inline Result<void> unregister_app_list(int list_type, const AppList &apps) {
  if (!apps.status()) return apps.status();
  return check(kova_unregister_app_list(list_type, apps.get()));
}

}  // namespace kova

#endif  // KOVA_KOVA_HPP
