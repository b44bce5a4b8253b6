/* A tiny program built against an installed libkova-api. */
#include <kova_api.h>
#include <stdio.h>

int main(void) {
  /* A null callback is refused without touching the bus. */
  unsigned int none = kova_register_player_video_start_request_callback(NULL, NULL);
  printf("consumer: a null callback gives handle %u\n", none);
  return none == 0 ? 0 : 1;
}
