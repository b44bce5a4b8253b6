/* Resource manager (stand-in for libbrask.so.1).
 *
 * Category numbers of the stand-ins (libbrask and libostel agree on them):
 *   bits 0-15 hold the plain category, bits 16-30 option bits
 *   (BRASK_CATEGORY_OPTION_MASK) that a caller may add to a plain category;
 *   1000-1199  video decoders (the H.264 decoders are 1010, 1011, 1152, 1153)
 *   1200-1209  MJPEG decoders
 *   2000-2099  audio decoders
 *   3000-3009  audio outputs (3000 the main output, 3001 the second one)
 *   4000-4009  video scalers; 4009 is the scaler dedicated to HDMI input
 * Every other number is no category the stand-ins know. */
#ifndef BRASK_H
#define BRASK_H

#ifdef __cplusplus
extern "C" {
#endif

#define BRASK_CATEGORY_OPTION_MASK 0x7FFF0000

/* Returns the audio outputs active for player_id as a mask: bit 0 the main
 * output, bit 1 the second output; negative on failure. The stand-in knows no
 * players: it answers -1 for a negative id and 1 (main output) otherwise. */
int brask_get_active_audio_out(int player_id);

/* Returns category without its option bits. A negative value is returned as
 * it is. */
int brask_unmask_category_options(int category);

#ifdef __cplusplus
}
#endif
#endif
