#include "brask.h"

extern "C" int brask_get_active_audio_out(int player_id) { return player_id < 0 ? -1 : 1; }

extern "C" int brask_unmask_category_options(int category) {
  return category < 0 ? category : (category & ~BRASK_CATEGORY_OPTION_MASK);
}
