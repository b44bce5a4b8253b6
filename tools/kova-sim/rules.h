// The state and rules of the simulated kova service, free of D-Bus: every
// method of the interface is a member taking plain values, and what the
// service has to announce is queued as typed signals (and stop timers) in an
// outbox that the bus glue drains after each call.
#ifndef KOVA_SIM_RULES_H
#define KOVA_SIM_RULES_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "config.h"

namespace kova_sim {

inline constexpr int kAudioOutNone = 0;
inline constexpr int kAudioOutMain = 1;
inline constexpr int kAudioOutSub = 2;

enum class PlayerRequest { kVideoStart, kVideoStop, kAudioStart, kAudioStop, kAudioResync };
const char *SignalName(PlayerRequest request);

// One entry per signal of the interface.
struct PlayerSignal {
  PlayerRequest request;
  int request_id;
  int player_id;
  friend bool operator==(const PlayerSignal &, const PlayerSignal &) = default;
};
struct BestZoneSignal {
  int zone_id;
  int previous_zone_id;
  int option;
  friend bool operator==(const BestZoneSignal &, const BestZoneSignal &) = default;
};
struct AudioFocusSignal {
  int change_id;
  int zone_id;
  int scaler_id;
  std::string app_id;
  friend bool operator==(const AudioFocusSignal &, const AudioFocusSignal &) = default;
};
struct AppRscSignal {
  std::string app_id;
  int max_resolution_changed;
  int audio_out_changed;
  Resolution max_video;
  friend bool operator==(const AppRscSignal &, const AppRscSignal &) = default;
};
struct MaxRezSignal {
  std::string app_id;
  Resolution max_video;
  friend bool operator==(const MaxRezSignal &, const MaxRezSignal &) = default;
};
struct ZoneApp {
  int zone_id;
  std::string app_id;
  friend bool operator==(const ZoneApp &, const ZoneApp &) = default;
};
struct PolicySignal {
  int change_id;
  int policy;
  std::vector<ZoneApp> apps;
  friend bool operator==(const PolicySignal &, const PolicySignal &) = default;
};
using Signal = std::variant<PlayerSignal, BestZoneSignal, AudioFocusSignal, AppRscSignal, MaxRezSignal, PolicySignal>;

// Asks the glue to call StopTimedOut(player_id, serial) after ms milliseconds.
struct StopTimer {
  int player_id;
  unsigned serial;
  int ms;
};

struct Outbox {
  std::vector<Signal> signals;
  std::vector<StopTimer> timers;
};

struct AppPriority {
  std::string app_id;
  int video;
  int audio;
};

struct ZoneInfo {
  int id;
  int scaler_id;
  std::string app_id;  // empty: no application
};

// Everything the simulator knows, for developers looking at it from outside.
struct Snapshot {
  struct PlayerView {
    int id;
    int value;
    const char *state;       // "idle", "playing", "stopping", "waiting"
    int audio_out;           // held, or promised while waiting
    bool decoder;            // holds a video decoder
    std::vector<std::string> awaiting;  // acknowledgements the service waits for
    int stopping_for;        // while stopping: the player that gets its resources (0: none)
  };
  std::vector<PlayerView> players;
  int video_decoders;
  int free_decoders;
  std::vector<ZoneInfo> zones;
  std::vector<std::string> removable_apps;
  int focused_zone;
  int best_quality_zone;
  int audio_focus;
  int last_audio_focus;
  int layout_state;
  int policy;
  std::string policy_owner;
  std::vector<std::string> resource_change_apps;
  std::vector<std::string> max_resolution_apps;
  std::map<int, std::vector<std::string>> app_lists;  // "APP:VIDEO:AUDIO" by list type
  std::map<std::string, int> ext_speakers;
};

class Kova {
 public:
  enum class PlayerState { kIdle, kPlaying, kStopping, kWaiting };

  explicit Kova(const Config &config);

  // Players. Acknowledgements answer 0 when the service was waiting for them,
  // -1 otherwise.
  void PlayerRegister(int cmd, int player_id, int value);
  void PlayerUnregister(int cmd, int player_id);
  void PlayerRequestStop(int cmd, int player_id);
  int PlayerRequestPlay(int cmd, int player_id);
  int PlayerVideoStartDone(int player_id);
  int PlayerAudioStartDone(int player_id);
  int PlayerVideoStopDone(int player_id);
  int PlayerAudioStopDone(int player_id);
  int GetPlayerAudioOut(int player_id) const;
  // True when the stop was still waiting for its acknowledgements.
  bool StopTimedOut(int player_id, unsigned serial);

  // External speakers: a name bound to an audio output.
  int RegisterExtSpk(int cmd, const std::string &name, int audio_out);
  int UnregisterExtSpk(int cmd, const std::string &name, int audio_out);
  int GetExtSpkAudioOut(const std::string &name) const;

  // Zones.
  std::vector<ZoneInfo> Zones() const;
  ZoneInfo FocusedZone() const;
  int SetAppToZone(const std::string &app_id, int zone_id);
  int RemoveAppFromZone(const std::string &app_id, int zone_id);
  int SetPreAssignedAppToZone(const std::string &app_id, int zone_id);
  void SetRemovableAppToZone(const std::string &app_id, int zone_id);
  void ClearRemovableAppToZone();
  int NotifyLayoutState(int state);

  // Best-quality zone and audio focus.
  int SwitchBestQualityZone(int zone_id, int option);
  int RestoreBestQualityZone();
  int best_quality_zone() const { return best_zone_; }
  int SetAudioFocus(int cmd, int zone_id);
  int audio_focus() const { return audio_focus_; }
  int last_audio_focus() const { return last_audio_focus_; }
  int IsAudioFocused(const std::string &app_id) const;

  // Per-application grants and their notifications.
  int RscChangeRegister(const std::string &app_id);
  int RscChangeUnregister(const std::string &app_id);
  int MaxVideoRegister(const std::string &app_id);
  int MaxVideoUnregister(const std::string &app_id);
  Resolution MaxVideo(const std::string &app_id) const;
  int AppAudioOut(const std::string &app_id) const;
  Resolution PolicyMaxVideo(int policy, int codec) const;
  int CapableCategory(int category) const;

  // Resource policy and application lists.
  int SetPolicyWithOwner(int cmd, int policy, const std::string &owner, bool remove_all);
  int SetPolicyWithAppList(int cmd, int policy, const std::string &owner, bool remove_all, int count,
                           const std::vector<AppPriority> &apps);
  int SetPolicyInternal(int cmd, uint32_t policy);
  int SetPolicyAppToZone(int cmd, int policy, int count, const std::vector<ZoneApp> &apps);
  int SetPreAssignedAppList(const std::vector<ZoneApp> &apps);
  bool policy_active() const { return policy_ != 0; }
  int policy() const { return policy_; }
  const std::string &policy_owner() const { return policy_owner_; }
  int RegisterAppList(int list_type, int count, const std::vector<AppPriority> &apps);
  int UnregisterAppList(int list_type, int count, const std::vector<std::string> &apps);
  size_t AppListSize(int list_type) const;

  // Read-outs for logs and tests.
  PlayerState player_state(int player_id) const;
  int free_decoders() const;
  Snapshot Snap() const;

  // Everything queued since the last call.
  Outbox TakeOutbox();

 private:
  struct Player {
    int value = 0;
    PlayerState state = PlayerState::kIdle;
    int audio_out = kAudioOutNone;
    uint64_t since = 0;       // grant order: the oldest holder is stopped first
    bool video_start_pending = false;
    bool audio_start_pending = false;
    bool video_stop_pending = false;
    bool audio_stop_pending = false;
    int request_id = 0;       // the request behind the running stop
    int beneficiary = 0;      // who gets the resources when that stop ends
    bool has_beneficiary = false;
    unsigned stop_serial = 0;
    int promised_audio = kAudioOutNone;  // while waiting
  };
  struct AppGrant {
    Resolution max_video;
    int audio_out;
    friend bool operator==(const AppGrant &, const AppGrant &) = default;
  };
  struct Zone {
    std::string app_id;
    bool removable = false;
  };

  Player *FindPlayer(int player_id);
  const Player *FindPlayer(int player_id) const;
  int HoldersOf(int audio_out) const;
  int FreeAudioOut() const;
  void Emit(PlayerRequest request, int request_id, int player_id);
  void GrantPlay(int player_id, Player &player, int request_id, int audio_out);
  void BeginStop(int player_id, Player &player, int request_id);
  void FinishStop(int player_id);
  void CancelWait(int player_id);
  int StopDone(int player_id, bool video);

  bool ValidZone(int zone_id) const { return zone_id >= 1 && zone_id <= static_cast<int>(zones_.size()); }
  int ZoneOf(const std::string &app_id) const;
  void PlaceApp(const std::string &app_id, int zone_id);
  void ClearZones();
  AppGrant CurrentGrant(const std::string &app_id) const;
  void UpdateGrants();
  int RecordPolicy(int cmd, int policy, const std::string &owner, std::vector<ZoneApp> apps);

  Config config_;
  Outbox outbox_;
  std::map<int, Player> players_;
  uint64_t grant_seq_ = 0;
  unsigned stop_serial_ = 0;
  std::map<std::string, int> ext_speakers_;
  std::vector<Zone> zones_;  // zone id = index + 1, scaler id = index
  int focused_zone_ = 1;
  int best_zone_;
  int audio_focus_;
  int last_audio_focus_ = 0;
  int layout_state_ = 0;
  std::map<std::string, AppGrant> rsc_regs_;
  std::map<std::string, Resolution> rez_regs_;
  int policy_ = 0;
  std::string policy_owner_;
  std::map<int, std::map<std::string, std::pair<int, int>>> app_lists_;
};

}  // namespace kova_sim

#endif
