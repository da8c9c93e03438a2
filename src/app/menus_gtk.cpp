#include "app/menus_gtk.h"

#include <webkit2/webkit2.h>

#include "app/draggable_web_view_gtk.h"
#include "app/log_panel_gtk.h"
#include "app/main_window_gtk.h"
#include "app/server_selection.h"
#include "app/ui_globals_gtk.h"
#include "build_config.h"
#include "update/updater.h"

namespace {

GtkWidget* gToggleLogItem = nullptr;

void runEditingCommand(const char* command) {
  if (gWebView) webkit_web_view_execute_editing_command(gWebView->view(), command);
}

GtkWidget* item(GtkWidget* menu, const char* title, guint key, GdkModifierType mods, void (*action)()) {
  GtkWidget* entry = gtk_menu_item_new_with_label(title);
  if (key) gtk_accel_label_set_accel(GTK_ACCEL_LABEL(gtk_bin_get_child(GTK_BIN(entry))), key, mods);
  g_signal_connect_swapped(entry, "activate", G_CALLBACK(action), nullptr);
  gtk_menu_shell_append(GTK_MENU_SHELL(menu), entry);
  return entry;
}

void separator(GtkWidget* menu) { gtk_menu_shell_append(GTK_MENU_SHELL(menu), gtk_separator_menu_item_new()); }

GtkWidget* submenu(GtkWidget* bar, const char* title) {
  GtkWidget* top = gtk_menu_item_new_with_label(title);
  GtkWidget* menu = gtk_menu_new();
  gtk_menu_item_set_submenu(GTK_MENU_ITEM(top), menu);
  gtk_menu_shell_append(GTK_MENU_SHELL(bar), top);
  return menu;
}

void updateToggleLogTitle() {
  if (gToggleLogItem) gtk_menu_item_set_label(GTK_MENU_ITEM(gToggleLogItem), logPanelShown() ? "Hide Log" : "Show Log");
}

void revealMenuBar(GtkWidget* bar) {
  gtk_widget_show(bar);
  gtk_menu_shell_select_first(GTK_MENU_SHELL(bar), FALSE);
}

struct KeyState {
  GtkWidget* menuBar = nullptr;
  bool loneAlt = false;
};

gboolean onKeyPress(GtkWidget*, GdkEventKey* event, KeyState* state) {
  guint key = gdk_keyval_to_lower(event->keyval);
  auto mods = event->state & gtk_accelerator_get_default_mod_mask();
  bool alt = key == GDK_KEY_Alt_L || key == GDK_KEY_Alt_R;
  state->loneAlt = alt && mods == 0;
  if (alt) return FALSE;

  if (key == GDK_KEY_F10 && mods == 0) {
    revealMenuBar(state->menuBar);
    return TRUE;
  }
  if (mods == GDK_CONTROL_MASK) {
    switch (key) {
      case GDK_KEY_q: ondrelQuit(); return TRUE;
      case GDK_KEY_r: reloadWebView(); return TRUE;
      case GDK_KEY_l: toggleLogPanel(); return TRUE;
      default: break;
    }
  }
  if (mods == (GDK_CONTROL_MASK | GDK_SHIFT_MASK) && key == GDK_KEY_v) {
    runEditingCommand(WEBKIT_EDITING_COMMAND_PASTE_AS_PLAIN_TEXT);
    return TRUE;
  }
  // Undo, cut, copy and the rest are the web view's own editing keys.
  return FALSE;
}

gboolean onKeyRelease(GtkWidget*, GdkEventKey* event, KeyState* state) {
  bool alt = event->keyval == GDK_KEY_Alt_L || event->keyval == GDK_KEY_Alt_R;
  if (alt && state->loneAlt && !gtk_widget_get_visible(state->menuBar)) revealMenuBar(state->menuBar);
  state->loneAlt = false;
  return FALSE;
}

}  // namespace

GtkWidget* createMenuBar(Updater& updater) {
  GtkWidget* bar = gtk_menu_bar_new();

  GtkWidget* app = submenu(bar, "Ondrel");
  g_signal_connect_swapped(item(app, "About Ondrel", 0, GdkModifierType(0), [] {}), "activate",
                           G_CALLBACK(+[](Updater* u) { u->showAbout(ondrelServerURL()); }), &updater);
  separator(app);
  if (!ondrel::build::kPackaged) {  // the package manager updates a packaged copy
    g_signal_connect_swapped(item(app, "Check for Updates…", 0, GdkModifierType(0), [] {}), "activate",
                             G_CALLBACK(+[](Updater* u) { u->checkForUpdates(); }), &updater);
    separator(app);
  }
  item(app, "Quit", GDK_KEY_q, GDK_CONTROL_MASK, ondrelQuit);

  GtkWidget* edit = submenu(bar, "Edit");
  item(edit, "Undo", GDK_KEY_z, GDK_CONTROL_MASK, [] { runEditingCommand(WEBKIT_EDITING_COMMAND_UNDO); });
  item(edit, "Redo", GDK_KEY_z, GdkModifierType(GDK_CONTROL_MASK | GDK_SHIFT_MASK),
       [] { runEditingCommand(WEBKIT_EDITING_COMMAND_REDO); });
  separator(edit);
  item(edit, "Cut", GDK_KEY_x, GDK_CONTROL_MASK, [] { runEditingCommand(WEBKIT_EDITING_COMMAND_CUT); });
  item(edit, "Copy", GDK_KEY_c, GDK_CONTROL_MASK, [] { runEditingCommand(WEBKIT_EDITING_COMMAND_COPY); });
  item(edit, "Paste", GDK_KEY_v, GDK_CONTROL_MASK, [] { runEditingCommand(WEBKIT_EDITING_COMMAND_PASTE); });
  item(edit, "Paste and Match Style", GDK_KEY_v, GdkModifierType(GDK_CONTROL_MASK | GDK_SHIFT_MASK),
       [] { runEditingCommand(WEBKIT_EDITING_COMMAND_PASTE_AS_PLAIN_TEXT); });
  separator(edit);
  item(edit, "Select All", GDK_KEY_a, GDK_CONTROL_MASK, [] { runEditingCommand(WEBKIT_EDITING_COMMAND_SELECT_ALL); });

  GtkWidget* view = submenu(bar, "View");
  item(view, "Reload", GDK_KEY_r, GDK_CONTROL_MASK, reloadWebView);
  gToggleLogItem = item(view, "Show Log", GDK_KEY_l, GDK_CONTROL_MASK, toggleLogPanel);
  // The title follows the panel's state each time the menu opens.
  g_signal_connect(view, "show", G_CALLBACK(+[] { updateToggleLogTitle(); }), nullptr);

  gtk_widget_show_all(bar);
  gtk_widget_set_no_show_all(bar, TRUE);
  gtk_widget_hide(bar);
  g_signal_connect(bar, "deactivate", G_CALLBACK(gtk_widget_hide), nullptr);
  gtk_widget_set_valign(bar, GTK_ALIGN_START);
  return bar;
}

void installKeyboardShortcuts(GtkWindow* window, GtkWidget* menuBar) {
  auto* state = new KeyState{menuBar, false};  // lives as long as the window
  g_signal_connect(window, "key-press-event", G_CALLBACK(onKeyPress), state);
  g_signal_connect(window, "key-release-event", G_CALLBACK(onKeyRelease), state);
}
