// A zone list built from a reply of any type and value, and application lists
// and policy info records, under operation sequences read from the input.
//
// Input: a flags byte (bit 0: the multi-view query), the zone reply as a type
// string, a NUL byte, a u16 length and the serialised value, then operations
// to the end: a byte (low 4 bits: the operation, see step(); high bits: its
// variant) and its operands.

#include "harness.h"

namespace {

// A list attached to a policy info belongs to it and leaves lists.
struct State {
  void *zones = nullptr;
  std::vector<kova_app_list_h> lists;
  std::vector<kova_policy_info *> infos;
};

std::string text(fuzz::Reader &in) {
  std::string s;
  for (uint8_t n = in.byte() % 8; n > 0; --n) s.push_back(static_cast<char>(in.byte()));
  return s;
}

// One of v, chosen by the input, and removed from v when taken.
template <typename T>
T pick(std::vector<T> &v, fuzz::Reader &in, bool take = false) {
  if (v.empty()) return nullptr;
  auto it = v.begin() + in.byte() % v.size();
  T x = *it;
  if (take) v.erase(it);
  return x;
}

void step(State &s, uint8_t op, fuzz::Reader &in) {
  kova_zone *zone = nullptr;
  int id = 0;
  switch (op & 0x0F) {
    case 0:
      if (kova_get_next_zone(s.zones, &zone) != 0) break;
      fuzz::check(kova_get_zone_id(zone, &id) == 0 && id == zone->id, "zone id differs");
      kova_zone_get_app_id(zone);
      break;
    case 1:
      if (kova_get_prev_zone(s.zones, &zone) == 0) kova_zone_get_scaler_id(zone);
      break;
    case 2: kova_resource_zone_get_app_id(kova_resource_zone_list_get_next(s.zones)); break;
    case 3: s.lists.push_back(kova_app_list_create_new()); break;
    case 4: {
      kova_app_list_h l = pick(s.lists, in);
      const std::string app_id = text(in);
      kova_app_list_add(l, static_cast<int8_t>(in.byte()), app_id.c_str());
      break;
    }
    case 5: {
      // One cursor step, chosen by the high bits: first, next or previous.
      using Step = kova_app *(*)(kova_app_list_h);
      const Step steps[] = {kova_app_list_get_first, kova_app_list_get_next, kova_app_list_get_prev};
      kova_app *app = steps[(op >> 6) % 3](pick(s.lists, in));
      fuzz::check(app == nullptr || kova_app_get_app_id(app) != nullptr, "app list: app without id");
      break;
    }
    case 6: {
      kova_app_list_h l = pick(s.lists, in);
      int n = 0;
      for (kova_app *a = kova_app_list_get_first(l); a != nullptr; a = kova_app_list_get_next(l)) ++n;
      fuzz::check(n == kova_app_list_get_count(l), "app list: count differs from the walk");
      break;
    }
    case 7: kova_app_list_free(pick(s.lists, in, true)); break;
    case 8: {
      kova_policy_info *info = kova_policy_info_create_new(text(in).c_str());
      if (info == nullptr) break;
      s.infos.push_back(info);
      kova_app_list_h l = pick(s.lists, in, true);
      if (l != nullptr) fuzz::check(kova_policy_info_set_app_list(info, l) == 0, "policy info: list refused");
      break;
    }
    case 9: {
      // The sends walk the lists into the message.
      kova_policy_info *info = pick(s.infos, in);
      kova_policy_info_set_option_remove_all_current_apps(info, (op & 0x80) != 0);
      kova_set_resource_policy(1, info);
      kova_set_pre_assigned_app_list(kova_policy_info_get_app_list(info));
      kova_register_app_list(1, pick(s.lists, in));
      kova_unregister_app_list(1, pick(s.lists, in));
      break;
    }
    case 10: kova_policy_info_free(pick(s.infos, in, true)); break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Reader in(data, size);
  const uint8_t flags = in.byte();
  fuzz::set_reply(in.variant(false));
  State s;
  const int got = (flags & 1) != 0 ? kova_get_multiview_zone_list(&s.zones) : kova_get_zone_list(&s.zones);
  if (got != 0) s.zones = nullptr;
  // The policy sends get a plain success.
  fuzz::set_reply(g_variant_ref_sink(g_variant_new("(i)", 0)));
  while (in.left() > 0) step(s, in.byte(), in);
  if (s.zones != nullptr) kova_free_zone_list(s.zones);
  for (kova_app_list_h l : s.lists) kova_app_list_free(l);
  for (kova_policy_info *i : s.infos) kova_policy_info_free(i);
  fuzz::set_reply(nullptr);
  return 0;
}
