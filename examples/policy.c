/* Sets a resource policy for two applications and prints the policy changes
 * that the service announces, until enough of them arrived or time runs out.
 *
 * Usage: policy_example [policy] [changes to wait for] [seconds] */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>

#include "kova_api.h"

typedef struct {
  GMainLoop *loop;
  int awaited; /* changes still to print */
} watch_t;

static void on_policy_changed(kova_policy_info *info, void *user_data) {
  watch_t *w = user_data;
  kova_app_list_h apps = kova_policy_info_get_app_list(info);
  printf("<- policy changed to %d, %d application(s)\n", kova_policy_info_get_policy(info),
         kova_app_list_get_count(apps));
  /* The record and its list belong to the library: read them, do not keep them.
   * Walking by the count spares the error line that a step past the last
   * application writes. */
  const int count = kova_app_list_get_count(apps);
  for (int i = 0; i < count; ++i) {
    kova_app *app = i == 0 ? kova_app_list_get_first(apps) : kova_app_list_get_next(apps);
    printf("   zone %d: %s\n", kova_app_get_zone_id(app), kova_app_get_app_id(app));
  }
  if (w->awaited > 0 && --w->awaited == 0) g_main_loop_quit(w->loop);
}

static gboolean on_timeout(gpointer user_data) {
  g_main_loop_quit(((watch_t *)user_data)->loop);
  return G_SOURCE_REMOVE;
}

/* A list of two applications: one placed in zone 1, one made alone and given
 * priorities before it is inserted. */
static kova_app_list_h make_apps(void) {
  kova_app_list_h apps = kova_app_list_create_new();
  if (kova_app_list_add(apps, 1, "org.example.player") == NULL) goto fail;
  kova_app *app = kova_app_list_create_new_app("org.example.guide");
  if (app == NULL) goto fail;
  kova_app_set_priority_video(app, 2);
  kova_app_set_priority_audio(app, 1);
  if (kova_app_list_insert_app(apps, app) == NULL) {
    free(app->app_id); /* a rejected record stays ours */
    free(app);
    goto fail;
  }
  return apps;
fail:
  kova_app_list_free(apps);
  return NULL;
}

int main(int argc, char **argv) {
  setvbuf(stdout, NULL, _IOLBF, 0); /* events show up as they come, also in a pipe */
  int policy = argc > 1 ? atoi(argv[1]) : 1;
  watch_t w = {g_main_loop_new(NULL, FALSE), argc > 2 ? atoi(argv[2]) : 1};
  int wait_s = argc > 3 ? atoi(argv[3]) : 5;
  int status = 1;

  kova_policy_info *info = kova_policy_info_create_new("policy_example");
  kova_app_list_h apps = make_apps();
  if (info == NULL || apps == NULL) {
    fprintf(stderr, "cannot build the policy info\n");
    if (apps != NULL) kova_app_list_free(apps);
    goto out;
  }
  if (kova_policy_info_set_app_list(info, apps) != 0) {
    kova_app_list_free(apps); /* not attached: still ours */
    goto out;
  }

  /* Subscribe first, so that the change this program causes is seen too. */
  unsigned int id = kova_register_resource_policy_changed_callback(on_policy_changed, &w);
  if (id == 0 || id == (unsigned int)-1) {
    fprintf(stderr, "cannot subscribe to policy changes (is the bus there?)\n");
    goto out;
  }
  printf("registered policy-change callback %u\n", id);

  int result = kova_set_resource_policy(policy, info);
  printf("-> set policy %d with %d application(s): %d\n", policy,
         kova_app_list_get_count(kova_policy_info_get_app_list(info)), result);

  if (w.awaited > 0) {
    guint timer = g_timeout_add_seconds((guint)wait_s, on_timeout, &w);
    g_main_loop_run(w.loop);
    if (w.awaited > 0) {
      printf("   %d change(s) still missing after %d s\n", w.awaited, wait_s);
    } else {
      g_source_remove(timer);
    }
  }
  status = result == 0 && w.awaited <= 0 ? 0 : 1;
  kova_unregister_resource_policy_changed_callback(id);
  /* The subscription's record is released from the main context. */
  while (g_main_context_iteration(NULL, FALSE)) {
  }

out:
  if (info != NULL) kova_policy_info_free(info); /* frees the attached list too */
  g_main_loop_unref(w.loop);
  return status;
}
