// Zone lists built from replies of any type and value, and application lists
// and policy info records, under operation sequences read from the input.
//
// Input: a flags byte (bit 0: the multi-view query; bit 1: normalise), the
// zone reply as a type string, a NUL byte, a u16 length and the serialised
// value, then one operation per byte (with its operands) to the end.
#include <string>
#include <vector>

#include "harness.h"
#include "kova_private.h"

namespace {

// What the harness may do with each object without breaking the API's
// ownership rules: an app is inserted at most once, a list attached to a
// policy info belongs to it.
struct State {
  void *zones = nullptr;
  std::vector<kova_app_list_h> lists;   // owned here
  std::vector<kova_app *> loose_apps;   // created, not yet inserted
  std::vector<kova_policy_info *> infos;
};

std::string app_id(fuzz::Reader &in) {
  std::string id;
  for (uint8_t n = in.byte() % 8; n > 0; --n) id.push_back(static_cast<char>(in.byte()));
  return id;
}

template <typename T>
T pick(std::vector<T> &v, fuzz::Reader &in) {
  return v.empty() ? nullptr : v[in.byte() % v.size()];
}

template <typename T>
T take(std::vector<T> &v, fuzz::Reader &in) {
  if (v.empty()) return nullptr;
  size_t i = in.byte() % v.size();
  T x = v[i];
  v.erase(v.begin() + static_cast<long>(i));
  return x;
}

void zone_op(State &s, uint8_t op) {
  kova_zone *zone = nullptr;
  int id = 0;
  switch (op % 4) {
    case 0:
      if (kova_get_next_zone(s.zones, &zone) == 0) kova_zone_get_app_id(zone);
      break;
    case 1:
      if (kova_get_prev_zone(s.zones, &zone) == 0) kova_zone_get_scaler_id(zone);
      break;
    case 2:
      zone = kova_resource_zone_list_get_next(s.zones);
      if (zone != nullptr) kova_resource_zone_get_app_id(zone);
      break;
    case 3:
      if (kova_get_next_zone(s.zones, &zone) == 0) {
        fuzz::check(kova_get_zone_id(zone, &id) == 0 && id == zone->id, "zone id differs");
      }
      break;
  }
}

void app_op(State &s, uint8_t op, fuzz::Reader &in) {
  switch (op % 14) {
    case 0: s.lists.push_back(kova_app_list_create_new()); break;
    case 1: {
      kova_app_list_h l = pick(s.lists, in);
      std::string id = app_id(in);
      kova_app_list_add(l, in.i32(), id.c_str());
      break;
    }
    case 2: {
      std::string id = app_id(in);
      kova_app *app = kova_app_list_create_new_app(id.c_str());
      if (app != nullptr) s.loose_apps.push_back(app);
      break;
    }
    case 3: {
      kova_app_list_h l = pick(s.lists, in);
      if (l == nullptr) break;
      kova_app *app = take(s.loose_apps, in);
      kova_app_list_insert_app(l, app);
      break;
    }
    case 4: kova_app_list_get_first(pick(s.lists, in)); break;
    case 5: kova_app_list_get_next(pick(s.lists, in)); break;
    case 6: kova_app_list_get_prev(pick(s.lists, in)); break;
    case 7: {
      kova_app_list_h l = pick(s.lists, in);
      int n = 0;
      for (kova_app *a = kova_app_list_get_first(l); a != nullptr; a = kova_app_list_get_next(l)) ++n;
      fuzz::check(n == kova_app_list_get_count(l), "app list: count differs from the walk");
      break;
    }
    case 8: kova_app_list_free(take(s.lists, in)); break;
    case 9: {
      kova_app *app = pick(s.loose_apps, in);
      kova_app_set_priority_video(app, in.i32());
      kova_app_set_priority_audio(app, in.i32());
      kova_app_get_app_id(app);
      kova_app_get_zone_id(app);
      break;
    }
    case 10: {
      std::string owner = app_id(in);
      kova_policy_info *info = kova_policy_info_create_new(owner.c_str());
      if (info != nullptr) s.infos.push_back(info);
      break;
    }
    case 11: {
      kova_policy_info *info = pick(s.infos, in);
      if (info == nullptr || kova_policy_info_get_app_list(info) != nullptr) {
        kova_policy_info_set_app_list(info, nullptr);
        break;
      }
      kova_app_list_h l = take(s.lists, in);
      if (l != nullptr) fuzz::check(kova_policy_info_set_app_list(info, l) == 0, "policy info: list refused");
      break;
    }
    case 12: {
      kova_policy_info *info = pick(s.infos, in);
      kova_policy_info_set_option_remove_all_current_apps(info, (op & 0x80) != 0);
      kova_policy_info_get_policy(info);
      // The sends walk the lists into the message.
      kova_set_resource_policy(1, info);
      kova_set_pre_assigned_app_list(kova_policy_info_get_app_list(info));
      kova_register_app_list(1, pick(s.lists, in));
      kova_unregister_app_list(1, pick(s.lists, in));
      break;
    }
    case 13: kova_policy_info_free(take(s.infos, in)); break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::init();
  fuzz::Reader in(data, size);
  const uint8_t flags = in.byte();
  GVariant *reply = in.variant(false, (flags & 2) != 0);
  fuzz::set_reply(reply);
  State s;
  const int got = (flags & 1) != 0 ? kova_get_multiview_zone_list(&s.zones) : kova_get_zone_list(&s.zones);
  if (got != 0) s.zones = nullptr;
  // Policy sends below get a plain success.
  GVariant *ok = g_variant_ref_sink(g_variant_new("(i)", 0));
  fuzz::set_reply(ok);
  g_variant_unref(ok);
  if (reply != nullptr) g_variant_unref(reply);

  while (in.left() > 0) {
    const uint8_t op = in.byte();
    if (s.zones != nullptr && (op & 0x40) != 0) {
      zone_op(s, op);
    } else {
      app_op(s, op, in);
    }
  }

  if (s.zones != nullptr) kova_free_zone_list(s.zones);
  for (kova_app_list_h l : s.lists) kova_app_list_free(l);
  for (kova_app *a : s.loose_apps) kova_app_free(a);
  for (kova_policy_info *i : s.infos) kova_policy_info_free(i);
  fuzz::set_reply(nullptr);
  return 0;
}
