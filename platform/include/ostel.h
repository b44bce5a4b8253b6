/* Resource information (stand-in for libostel.so.1).
 *
 * The category predicates take a plain category (without option bits) and
 * follow the numbering documented in brask.h. The device predicates describe a
 * model that has an HDMI-dedicated scaler and neither H.264 limit. */
#ifndef OSTEL_H
#define OSTEL_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

bool ostel_is_video_decoder_category(int category);       /* 1000-1199 */
bool ostel_is_audio_decoder_category(int category);       /* 2000-2099 */
bool ostel_is_audio_out_category(int category);           /* 3000-3009 */
bool ostel_is_video_scaler_category(int category);        /* 4000-4009 */
bool ostel_is_mjpeg_decoder_category(int category);       /* 1200-1209 */
bool ostel_is_hdmi_dedicated_scaler_category(int category); /* 4009 */
bool ostel_support_hdmi_dedicated_scaler(void);           /* true */
bool ostel_is_h264_interlaced_limited_model(void);        /* false */
bool ostel_is_h264_portrait_seamless_playback_limited_model(void); /* false */

#ifdef __cplusplus
}
#endif
#endif
