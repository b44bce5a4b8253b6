// Application lists and the registration of lists with the service.
#include <cstdlib>
#include <cstring>

#include "kova_private.h"

namespace {

char *copy_string(const char *s) {
  char *copy = strndup(s, std::strlen(s));
  KOVA_ASSERT_ALLOC(copy);
  return copy;
}

void append(kova_app_list_h app_list, kova_app *app) {
  app_list->list = g_list_append(app_list->list, app);
  app_list->count = static_cast<int>(g_list_length(app_list->list));
  // A walk in progress starts again from the first application.
  app_list->iter = app_list->list;
}

// The checks shared by the three walk functions; true when the walk may move.
bool walkable(const char *func, kova_app_list_h app_list) {
  if (app_list == nullptr || app_list->list == nullptr) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "invalid list");
    return false;
  }
  if (app_list->iter == nullptr) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "invalid inter");
    return false;
  }
  return true;
}

// Builds an array of element_type by walking the list with the exported walk,
// so that the walk's position and log lines are those of any caller's walk.
template <typename AddElement>
GVariant *walk_into_array(kova_app_list_h list, const char *element_type, AddElement add) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE(element_type));
  for (kova_app *app = kova_app_list_get_first(list); app != nullptr; app = kova_app_list_get_next(list)) {
    // Records are only ever filled with valid ids; a field written by hand
    // must not make the bus library refuse the whole message.
    const char *id = kova::valid_string(app->app_id) ? app->app_id : "";
    add(&builder, app, id);
  }
  return g_variant_builder_end(&builder);
}

const char *kRegisterAppList = "RegisterAppList";
const char *kUnregisterAppList = "UnregisterAppList";

}  // namespace

namespace kova {

GVariant *app_priority_array(kova_app_list_h list) noexcept {
  return walk_into_array(list, "a(sii)", [](GVariantBuilder *b, const kova_app *app, const char *id) {
    g_variant_builder_add(b, "(sii)", id, app->priority_video, app->priority_audio);
  });
}

GVariant *app_zone_array(kova_app_list_h list) noexcept {
  return walk_into_array(list, "a(is)", [](GVariantBuilder *b, const kova_app *app, const char *id) {
    g_variant_builder_add(b, "(is)", app->zone_id, id);
  });
}

GVariant *app_id_array(kova_app_list_h list) noexcept {
  return walk_into_array(list, "a(s)", [](GVariantBuilder *b, const kova_app *, const char *id) {
    g_variant_builder_add(b, "(s)", id);
  });
}

}  // namespace kova

extern "C" {

/* ---- Application lists ---- */

void kova_app_free(kova_app *app) noexcept {
  if (app == nullptr) return;
  free(app->app_id);
  free(app);
}

kova_app_list *kova_app_list_create_new(void) noexcept {
  auto *list = static_cast<kova_app_list *>(calloc(1, sizeof(kova_app_list)));
  KOVA_ASSERT_ALLOC(list);
  return list;
}

kova_app *kova_app_list_create_new_app(const char *app_id) noexcept {
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid app id");
    return nullptr;
  }
  auto *app = static_cast<kova_app *>(calloc(1, sizeof(kova_app)));
  KOVA_ASSERT_ALLOC(app);
  app->app_id = copy_string(app_id);
  return app;
}

kova_app_list_h kova_app_list_insert_app(kova_app_list_h app_list, kova_app *app) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid list");
    return nullptr;
  }
  if (app == nullptr) {
    KOVA_LOGE("invalid app");
    return nullptr;
  }
  append(app_list, app);
  return app_list;
}

kova_app_list_h kova_app_list_add(kova_app_list_h app_list, int zone_id, const char *app_id) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid list");
    return nullptr;
  }
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid app id");
    return nullptr;
  }
  auto *app = static_cast<kova_app *>(calloc(1, sizeof(kova_app)));
  KOVA_ASSERT_ALLOC(app);
  app->zone_id = zone_id;
  app->app_id = copy_string(app_id);
  append(app_list, app);
  return app_list;
}

void kova_app_list_free(kova_app_list_h app_list) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid list");
    return;
  }
  g_list_free_full(app_list->list, [](gpointer app) { kova_app_free(static_cast<kova_app *>(app)); });
  free(app_list);
}

int kova_app_list_get_count(kova_app_list_h app_list) noexcept {
  return app_list == nullptr ? 0 : app_list->count;
}

kova_app *kova_app_list_get_first(kova_app_list_h app_list) noexcept {
  if (!walkable(__func__, app_list)) return nullptr;
  GList *first = g_list_first(app_list->iter);
  if (first == nullptr) {
    KOVA_LOGE("no first app");
    return nullptr;
  }
  app_list->iter = first;
  return static_cast<kova_app *>(first->data);
}

kova_app *kova_app_list_get_next(kova_app_list_h app_list) noexcept {
  if (!walkable(__func__, app_list)) return nullptr;
  GList *next = app_list->iter->next;
  if (next == nullptr) {
    KOVA_LOGE("no next app");
    return nullptr;
  }
  app_list->iter = next;
  return static_cast<kova_app *>(next->data);
}

kova_app *kova_app_list_get_prev(kova_app_list_h app_list) noexcept {
  if (!walkable(__func__, app_list)) return nullptr;
  GList *prev = app_list->iter->prev;
  if (prev == nullptr) {
    KOVA_LOGE("no prev app");
    return nullptr;
  }
  app_list->iter = prev;
  return static_cast<kova_app *>(prev->data);
}

int kova_app_set_priority_video(kova_app *app, int priority) noexcept {
  if (app == nullptr) {
    KOVA_LOGE("invalid app");
    return -1;
  }
  app->priority_video = priority;
  return 0;
}

int kova_app_set_priority_audio(kova_app *app, int priority) noexcept {
  if (app == nullptr) {
    KOVA_LOGE("invalid app");
    return -1;
  }
  app->priority_audio = priority;
  return 0;
}

const char *kova_app_get_app_id(const kova_app *app) noexcept {
  if (app == nullptr) {
    KOVA_LOGE("invalid app");
    return nullptr;
  }
  return app->app_id;
}

int kova_app_get_zone_id(const kova_app *app) noexcept {
  if (app == nullptr) {
    KOVA_LOGE("invalid app");
    return 0;
  }
  return app->zone_id;
}

/* ---- List registration ---- */

int kova_register_app_list(int list_type, kova_app_list_h app_list) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid list");
    return -1;
  }
  int cmd = _kova_get_command_id();
  int count = kova_app_list_get_count(app_list);
  GVariant *args = g_variant_new("(iii@a(sii))", cmd, list_type, count, kova::app_priority_array(app_list));
  return kova::send_policy_call(__func__, cmd, kRegisterAppList, args);
}

int kova_unregister_app_list(int list_type, kova_app_list_h app_list) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid list");
    return -1;
  }
  int cmd = _kova_get_command_id();
  int count = kova_app_list_get_count(app_list);
  GVariant *args = g_variant_new("(iii@a(s))", cmd, list_type, count, kova::app_id_array(app_list));
  return kova::send_policy_call(__func__, cmd, kUnregisterAppList, args);
}

}  // extern "C"
