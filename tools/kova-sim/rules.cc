#include "rules.h"

#include <climits>

namespace kova_sim {

const char *SignalName(PlayerRequest request) {
  switch (request) {
    case PlayerRequest::kVideoStart: return "PlayerVideoStart";
    case PlayerRequest::kVideoStop: return "PlayerVideoStop";
    case PlayerRequest::kAudioStart: return "PlayerAudioStart";
    case PlayerRequest::kAudioStop: return "PlayerAudioStop";
    case PlayerRequest::kAudioResync: return "PlayerAudioResync";
  }
  return "";
}

Kova::Kova(const Config &config)
    : config_(config),
      zones_(static_cast<size_t>(config.zones)),
      best_zone_(config.best_quality_zone),
      audio_focus_(config.audio_focus) {}

Outbox Kova::TakeOutbox() { return std::exchange(outbox_, Outbox{}); }

// ---------------------------------------------------------------- players

Kova::Player *Kova::FindPlayer(int player_id) {
  auto it = players_.find(player_id);
  return it == players_.end() ? nullptr : &it->second;
}

const Kova::Player *Kova::FindPlayer(int player_id) const {
  auto it = players_.find(player_id);
  return it == players_.end() ? nullptr : &it->second;
}

Kova::PlayerState Kova::player_state(int player_id) const {
  const Player *p = FindPlayer(player_id);
  return p ? p->state : PlayerState::kIdle;
}

// Players that are stopping still hold their decoder until the stop ends.
int Kova::free_decoders() const {
  int held = 0;
  for (const auto &[id, p] : players_) {
    if (p.state == PlayerState::kPlaying || p.state == PlayerState::kStopping) ++held;
  }
  return config_.video_decoders - held;
}

Snapshot Kova::Snap() const {
  static const char *const kStates[] = {"idle", "playing", "stopping", "waiting"};
  Snapshot s{};
  for (const auto &[id, p] : players_) {
    std::vector<std::string> awaiting;
    const std::pair<bool, const char *> pending[] = {{p.video_start_pending, "video-start"},
                                                     {p.audio_start_pending, "audio-start"},
                                                     {p.video_stop_pending, "video-stop"},
                                                     {p.audio_stop_pending, "audio-stop"}};
    for (const auto &[on, name] : pending) {
      if (on) awaiting.emplace_back(name);
    }
    const bool waiting = p.state == PlayerState::kWaiting;
    s.players.push_back({id, p.value, kStates[static_cast<int>(p.state)], waiting ? p.promised_audio : p.audio_out,
                         p.state == PlayerState::kPlaying || p.state == PlayerState::kStopping, std::move(awaiting),
                         p.has_beneficiary ? p.beneficiary : 0});
  }
  s.video_decoders = config_.video_decoders;
  s.free_decoders = free_decoders();
  s.zones = Zones();
  for (const Zone &z : zones_) {
    if (z.removable) s.removable_apps.push_back(z.app_id);
  }
  s.focused_zone = focused_zone_;
  s.best_quality_zone = best_zone_;
  s.audio_focus = audio_focus_;
  s.last_audio_focus = last_audio_focus_;
  s.layout_state = layout_state_;
  s.policy = policy_;
  s.policy_owner = policy_owner_;
  for (const auto &[app, grant] : rsc_regs_) s.resource_change_apps.push_back(app);
  for (const auto &[app, max] : rez_regs_) s.max_resolution_apps.push_back(app);
  for (const auto &[type, apps] : app_lists_) {
    for (const auto &[app, priorities] : apps) {
      s.app_lists[type].push_back(app + ":" + std::to_string(priorities.first) + ":" + std::to_string(priorities.second));
    }
  }
  s.ext_speakers = ext_speakers_;
  return s;
}

int Kova::HoldersOf(int audio_out) const {
  int n = 0;
  for (const auto &[id, p] : players_) {
    if ((p.state == PlayerState::kPlaying || p.state == PlayerState::kStopping) && p.audio_out == audio_out) ++n;
  }
  return n;
}

int Kova::FreeAudioOut() const {
  if (HoldersOf(kAudioOutMain) == 0) return kAudioOutMain;
  if (config_.audio_outputs >= 2 && HoldersOf(kAudioOutSub) == 0) return kAudioOutSub;
  return kAudioOutNone;
}

void Kova::Emit(PlayerRequest request, int request_id, int player_id) {
  outbox_.signals.emplace_back(std::in_place_type<PlayerSignal>, request, request_id, player_id);
}

void Kova::PlayerRegister(int, int player_id, int value) {
  // Registering again only updates the value: a player keeps what it holds.
  players_[player_id].value = value;
}

void Kova::PlayerUnregister(int, int player_id) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr) return;
  switch (p->state) {
    case PlayerState::kStopping:
      FinishStop(player_id);  // nobody is left to acknowledge: hand over now
      break;
    case PlayerState::kWaiting:
      CancelWait(player_id);
      break;
    case PlayerState::kPlaying:
    case PlayerState::kIdle:
      break;
  }
  players_.erase(player_id);
}

void Kova::PlayerRequestStop(int cmd, int player_id) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr) return;
  if (p->state == PlayerState::kPlaying) {
    BeginStop(player_id, *p, cmd);  // a playing player has no beneficiary: nobody is handed what it frees
  } else if (p->state == PlayerState::kWaiting) {
    CancelWait(player_id);
  }
}

int Kova::PlayerRequestPlay(int cmd, int player_id) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr) return -1;
  switch (p->state) {
    case PlayerState::kPlaying:
      return p->audio_out;
    case PlayerState::kWaiting:
      return p->promised_audio;
    case PlayerState::kStopping:
      return -1;  // it has to finish stopping first
    case PlayerState::kIdle:
      break;
  }
  if (free_decoders() > 0) {
    int audio = FreeAudioOut();
    GrantPlay(player_id, *p, cmd, audio);
    return audio;
  }
  // No decoder free: the oldest holder that nobody has claimed yet is stopped
  // and its decoder and audio output go to this player.
  int victim_id = 0;
  Player *victim = nullptr;
  for (auto &[id, holder] : players_) {
    if (holder.state == PlayerState::kPlaying && (victim == nullptr || holder.since < victim->since)) {
      victim = &holder;
      victim_id = id;
    }
  }
  if (victim == nullptr) return -1;  // every decoder is already promised
  p->state = PlayerState::kWaiting;
  p->promised_audio = victim->audio_out != kAudioOutNone ? victim->audio_out : FreeAudioOut();
  victim->beneficiary = player_id;
  victim->has_beneficiary = true;
  BeginStop(victim_id, *victim, cmd);
  return p->promised_audio;
}

void Kova::GrantPlay(int player_id, Player &player, int request_id, int audio_out) {
  player.state = PlayerState::kPlaying;
  player.audio_out = audio_out;
  player.since = ++grant_seq_;
  player.promised_audio = kAudioOutNone;
  player.has_beneficiary = false;
  player.video_start_pending = true;
  Emit(PlayerRequest::kVideoStart, request_id, player_id);
  player.audio_start_pending = audio_out != kAudioOutNone;
  if (player.audio_start_pending) Emit(PlayerRequest::kAudioStart, request_id, player_id);
}

void Kova::BeginStop(int player_id, Player &player, int request_id) {
  player.state = PlayerState::kStopping;
  player.request_id = request_id;
  player.video_start_pending = player.audio_start_pending = false;
  player.video_stop_pending = true;
  Emit(PlayerRequest::kVideoStop, request_id, player_id);
  player.audio_stop_pending = player.audio_out != kAudioOutNone;
  if (player.audio_stop_pending) Emit(PlayerRequest::kAudioStop, request_id, player_id);
  player.stop_serial = ++stop_serial_;
  outbox_.timers.push_back(StopTimer{player_id, player.stop_serial, config_.stop_timeout_ms});
}

void Kova::FinishStop(int player_id) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr || p->state != PlayerState::kStopping) return;
  const int released_audio = p->audio_out;
  const int request_id = p->request_id;
  const bool handover = p->has_beneficiary;
  const int beneficiary_id = p->beneficiary;
  p->state = PlayerState::kIdle;
  p->audio_out = kAudioOutNone;
  p->video_stop_pending = p->audio_stop_pending = false;
  p->has_beneficiary = false;
  if (!handover) return;
  Player *b = FindPlayer(beneficiary_id);
  if (b == nullptr || b->state != PlayerState::kWaiting) return;
  GrantPlay(beneficiary_id, *b, request_id, released_audio != kAudioOutNone ? released_audio : FreeAudioOut());
}

// A waiting player gives up: its victim still stops, and what it releases
// stays free.
void Kova::CancelWait(int player_id) {
  for (auto &[id, holder] : players_) {
    if (holder.has_beneficiary && holder.beneficiary == player_id) holder.has_beneficiary = false;
  }
  Player *p = FindPlayer(player_id);
  if (p != nullptr) {
    p->state = PlayerState::kIdle;
    p->promised_audio = kAudioOutNone;
  }
}

bool Kova::StopTimedOut(int player_id, unsigned serial) {
  const Player *p = FindPlayer(player_id);
  if (p == nullptr || p->state != PlayerState::kStopping || p->stop_serial != serial) return false;
  FinishStop(player_id);
  return true;
}

int Kova::StopDone(int player_id, bool video) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr || p->state != PlayerState::kStopping) return -1;
  bool &pending = video ? p->video_stop_pending : p->audio_stop_pending;
  if (!pending) return -1;
  pending = false;
  if (!p->video_stop_pending && !p->audio_stop_pending) FinishStop(player_id);
  return 0;
}

int Kova::PlayerVideoStopDone(int player_id) { return StopDone(player_id, true); }
int Kova::PlayerAudioStopDone(int player_id) { return StopDone(player_id, false); }

int Kova::PlayerVideoStartDone(int player_id) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr || !p->video_start_pending) return -1;
  p->video_start_pending = false;
  return 0;
}

int Kova::PlayerAudioStartDone(int player_id) {
  Player *p = FindPlayer(player_id);
  if (p == nullptr || !p->audio_start_pending) return -1;
  p->audio_start_pending = false;
  return 0;
}

int Kova::GetPlayerAudioOut(int player_id) const {
  const Player *p = FindPlayer(player_id);
  return p == nullptr ? -1 : p->audio_out;
}

// ------------------------------------------------------- external speakers

// A speaker changes the audio path of its output: the players on it resync.
int Kova::RegisterExtSpk(int cmd, const std::string &name, int audio_out) {
  if (name.empty() || audio_out < kAudioOutMain || audio_out > config_.audio_outputs) return -1;
  ext_speakers_[name] = audio_out;
  for (const auto &[id, p] : players_) {
    if (p.state == PlayerState::kPlaying && p.audio_out == audio_out) Emit(PlayerRequest::kAudioResync, cmd, id);
  }
  return 0;
}

int Kova::UnregisterExtSpk(int cmd, const std::string &name, int audio_out) {
  auto it = ext_speakers_.find(name);
  if (it == ext_speakers_.end() || it->second != audio_out) return -1;
  ext_speakers_.erase(it);
  for (const auto &[id, p] : players_) {
    if (p.state == PlayerState::kPlaying && p.audio_out == audio_out) Emit(PlayerRequest::kAudioResync, cmd, id);
  }
  return 0;
}

int Kova::GetExtSpkAudioOut(const std::string &name) const {
  auto it = ext_speakers_.find(name);
  return it == ext_speakers_.end() ? -1 : it->second;
}

// ------------------------------------------------------------------ zones

std::vector<ZoneInfo> Kova::Zones() const {
  std::vector<ZoneInfo> out;
  for (size_t i = 0; i < zones_.size(); ++i) {
    out.push_back(ZoneInfo{static_cast<int>(i) + 1, static_cast<int>(i), zones_[i].app_id});
  }
  return out;
}

ZoneInfo Kova::FocusedZone() const {
  return ZoneInfo{focused_zone_, focused_zone_ - 1, zones_[static_cast<size_t>(focused_zone_ - 1)].app_id};
}

int Kova::ZoneOf(const std::string &app_id) const {
  if (app_id.empty()) return 0;
  for (size_t i = 0; i < zones_.size(); ++i) {
    if (zones_[i].app_id == app_id) return static_cast<int>(i) + 1;
  }
  return 0;
}

// An application is in one zone at most; a zone shows one application.
void Kova::PlaceApp(const std::string &app_id, int zone_id) {
  for (Zone &z : zones_) {
    if (z.app_id == app_id) z = Zone{};
  }
  zones_[static_cast<size_t>(zone_id - 1)] = Zone{app_id, false};
}

void Kova::ClearZones() {
  for (Zone &z : zones_) z = Zone{};
}

int Kova::SetAppToZone(const std::string &app_id, int zone_id) {
  if (app_id.empty() || !ValidZone(zone_id)) return -1;
  PlaceApp(app_id, zone_id);
  focused_zone_ = zone_id;
  UpdateGrants();
  return 0;
}

int Kova::SetPreAssignedAppToZone(const std::string &app_id, int zone_id) {
  if (app_id.empty() || !ValidZone(zone_id)) return -1;
  PlaceApp(app_id, zone_id);
  UpdateGrants();
  return 0;
}

int Kova::RemoveAppFromZone(const std::string &app_id, int zone_id) {
  if (app_id.empty() || !ValidZone(zone_id)) return -1;
  Zone &z = zones_[static_cast<size_t>(zone_id - 1)];
  if (z.app_id != app_id) return -1;
  z = Zone{};
  UpdateGrants();
  return 0;
}

void Kova::SetRemovableAppToZone(const std::string &app_id, int zone_id) {
  if (!ValidZone(zone_id)) return;
  Zone &z = zones_[static_cast<size_t>(zone_id - 1)];
  if (!app_id.empty() && z.app_id == app_id) z.removable = true;
}

void Kova::ClearRemovableAppToZone() {
  for (Zone &z : zones_) z.removable = false;
}

// A new layout drops the applications marked removable.
int Kova::NotifyLayoutState(int state) {
  if (state == layout_state_) return 0;
  layout_state_ = state;
  for (Zone &z : zones_) {
    if (z.removable) z = Zone{};
  }
  UpdateGrants();
  return 0;
}

// ------------------------------------------------ best quality and focus

int Kova::SwitchBestQualityZone(int zone_id, int option) {
  if (!ValidZone(zone_id) || option < 0) return -1;
  if (zone_id == best_zone_) return 0;
  const int previous = best_zone_;
  best_zone_ = zone_id;
  outbox_.signals.emplace_back(std::in_place_type<BestZoneSignal>, zone_id, previous, option);
  UpdateGrants();
  return 0;
}

int Kova::RestoreBestQualityZone() { return SwitchBestQualityZone(config_.best_quality_zone, 0); }

int Kova::SetAudioFocus(int cmd, int zone_id) {
  if (zone_id != 0 && !ValidZone(zone_id)) return -1;
  if (zone_id == audio_focus_) return 0;
  last_audio_focus_ = audio_focus_;
  audio_focus_ = zone_id;
  const std::string app = zone_id == 0 ? "" : zones_[static_cast<size_t>(zone_id - 1)].app_id;
  outbox_.signals.emplace_back(std::in_place_type<AudioFocusSignal>, cmd, zone_id, zone_id - 1, app);
  UpdateGrants();
  return 0;
}

int Kova::IsAudioFocused(const std::string &app_id) const {
  return audio_focus_ != 0 && ZoneOf(app_id) == audio_focus_ ? 1 : 0;
}

// ------------------------------------------------------------------ grants

// The best-quality zone (or no zone: a full-screen application) gets the main
// resolution, other zones the second one.
Resolution Kova::MaxVideo(const std::string &app_id) const {
  const int zone = ZoneOf(app_id);
  return zone == 0 || zone == best_zone_ ? config_.main_video : config_.sub_video;
}

// The audio-focus zone (or no zone) hears the main output, other zones the
// second one when there is one.
int Kova::AppAudioOut(const std::string &app_id) const {
  const int zone = ZoneOf(app_id);
  if (zone == 0 || zone == audio_focus_) return kAudioOutMain;
  return config_.audio_outputs >= 2 ? kAudioOutSub : kAudioOutNone;
}

Kova::AppGrant Kova::CurrentGrant(const std::string &app_id) const {
  return AppGrant{MaxVideo(app_id), AppAudioOut(app_id)};
}

Resolution Kova::PolicyMaxVideo(int policy, int) const {
  return policy == 0 ? config_.main_video : config_.sub_video;
}

int Kova::CapableCategory(int category) const {
  auto it = config_.capable_categories.find(category);
  return it == config_.capable_categories.end() ? category : it->second;
}

// Registering again refreshes what the application is told against.
int Kova::RscChangeRegister(const std::string &app_id) {
  if (app_id.empty()) return -1;
  rsc_regs_[app_id] = CurrentGrant(app_id);
  return 0;
}

int Kova::RscChangeUnregister(const std::string &app_id) { return rsc_regs_.erase(app_id) ? 0 : -1; }

int Kova::MaxVideoRegister(const std::string &app_id) {
  if (app_id.empty()) return -1;
  rez_regs_[app_id] = MaxVideo(app_id);
  return 0;
}

int Kova::MaxVideoUnregister(const std::string &app_id) { return rez_regs_.erase(app_id) ? 0 : -1; }

void Kova::UpdateGrants() {
  for (auto &[app, last] : rsc_regs_) {
    AppGrant now = CurrentGrant(app);
    if (now == last) continue;
    outbox_.signals.emplace_back(std::in_place_type<AppRscSignal>, app, now.max_video == last.max_video ? 0 : 1,
                                 now.audio_out == last.audio_out ? 0 : 1, now.max_video);
    last = now;
  }
  for (auto &[app, last] : rez_regs_) {
    Resolution now = MaxVideo(app);
    if (now == last) continue;
    outbox_.signals.emplace_back(std::in_place_type<MaxRezSignal>, app, now);
    last = now;
  }
}

// ------------------------------------------------------------------ policy

int Kova::RecordPolicy(int cmd, int policy, const std::string &owner, std::vector<ZoneApp> apps) {
  policy_ = policy;
  policy_owner_ = owner;
  outbox_.signals.emplace_back(std::in_place_type<PolicySignal>, cmd, policy, std::move(apps));
  UpdateGrants();
  return 0;
}

int Kova::SetPolicyWithOwner(int cmd, int policy, const std::string &owner, bool remove_all) {
  if (policy < 0) return -1;
  if (remove_all) ClearZones();
  return RecordPolicy(cmd, policy, owner, {});
}

int Kova::SetPolicyWithAppList(int cmd, int policy, const std::string &owner, bool remove_all, int count,
                               const std::vector<AppPriority> &apps) {
  if (policy < 0 || count != static_cast<int>(apps.size())) return -1;
  if (remove_all) ClearZones();
  std::vector<ZoneApp> listed;
  for (const AppPriority &a : apps) listed.push_back(ZoneApp{ZoneOf(a.app_id), a.app_id});
  return RecordPolicy(cmd, policy, owner, std::move(listed));
}

int Kova::SetPolicyInternal(int cmd, uint32_t policy) {
  if (policy > static_cast<uint32_t>(INT_MAX)) return -1;
  return RecordPolicy(cmd, static_cast<int>(policy), "", {});
}

int Kova::SetPolicyAppToZone(int cmd, int policy, int count, const std::vector<ZoneApp> &apps) {
  if (policy < 0 || count != static_cast<int>(apps.size())) return -1;
  for (const ZoneApp &a : apps) {
    if (a.app_id.empty() || !ValidZone(a.zone_id)) return -1;
  }
  for (const ZoneApp &a : apps) PlaceApp(a.app_id, a.zone_id);
  return RecordPolicy(cmd, policy, "", apps);
}

int Kova::SetPreAssignedAppList(const std::vector<ZoneApp> &apps) {
  for (const ZoneApp &a : apps) {
    if (a.app_id.empty() || !ValidZone(a.zone_id)) return -1;
  }
  for (const ZoneApp &a : apps) PlaceApp(a.app_id, a.zone_id);
  UpdateGrants();
  return 0;
}

int Kova::RegisterAppList(int list_type, int count, const std::vector<AppPriority> &apps) {
  if (count != static_cast<int>(apps.size())) return -1;
  auto &list = app_lists_[list_type];
  for (const AppPriority &a : apps) list[a.app_id] = {a.video, a.audio};
  return 0;
}

// All or nothing: one name that is not in the list refuses the call.
int Kova::UnregisterAppList(int list_type, int count, const std::vector<std::string> &apps) {
  if (count != static_cast<int>(apps.size())) return -1;
  auto it = app_lists_.find(list_type);
  if (it == app_lists_.end()) return apps.empty() ? 0 : -1;
  for (const std::string &a : apps) {
    if (it->second.count(a) == 0) return -1;
  }
  for (const std::string &a : apps) it->second.erase(a);
  if (it->second.empty()) app_lists_.erase(it);
  return 0;
}

size_t Kova::AppListSize(int list_type) const {
  auto it = app_lists_.find(list_type);
  return it == app_lists_.end() ? 0 : it->second.size();
}

}  // namespace kova_sim
