#include "app/menus_gtk.h"

#include <string>
#include <vector>

namespace {

struct Menus {
  MenuCommands commands;
  GtkWidget* bar = nullptr;
  GtkWidget* toggleLogItem = nullptr;
};

struct Action {
  const char* name;
  const char* accel;  // registered with the application; nullptr: none
  std::function<void(Menus&)> run;
};

void runEditingCommand(Menus& menus, const char* command) {
  if (WebKitWebView* view = menus.commands.webView()) webkit_web_view_execute_editing_command(view, command);
}

bool isAltKey(guint key) { return key == GDK_KEY_Alt_L || key == GDK_KEY_Alt_R; }

void revealMenuBar(GtkWidget* bar) {
  gtk_widget_show(bar);
  gtk_menu_shell_select_first(GTK_MENU_SHELL(bar), FALSE);
}

// Undo, cut, copy and the rest keep no application shortcut: the web view's
// own editing keys do them, and the menu only shows the keys.
std::vector<Action> actions(bool updatable) {
  std::vector<Action> list = {
      {"quit", "<Control>q", [](Menus& m) { m.commands.quit(); }},
      {"about", nullptr, [](Menus& m) { m.commands.about(); }},
      {"reload", "<Control>r", [](Menus& m) { m.commands.reload(); }},
      {"toggle-log", "<Control>l", [](Menus& m) { m.commands.toggleLog(); }},
      {"show-menu", "F10", [](Menus& m) { revealMenuBar(m.bar); }},
      {"undo", nullptr, [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_UNDO); }},
      {"redo", nullptr, [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_REDO); }},
      {"cut", nullptr, [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_CUT); }},
      {"copy", nullptr, [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_COPY); }},
      {"paste", nullptr, [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_PASTE); }},
      {"paste-plain", "<Control><Shift>v",
       [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_PASTE_AS_PLAIN_TEXT); }},
      {"select-all", nullptr, [](Menus& m) { runEditingCommand(m, WEBKIT_EDITING_COMMAND_SELECT_ALL); }},
  };
  if (updatable) list.push_back({"check-for-updates", nullptr, [](Menus& m) { m.commands.checkForUpdates(); }});
  return list;
}

void addActions(GtkApplication* app, Menus* menus) {
  for (Action& action : actions(bool(menus->commands.checkForUpdates))) {
    GSimpleAction* simple = g_simple_action_new(action.name, nullptr);
    using Bound = std::pair<Menus*, Action>;
    auto activate = +[](GSimpleAction*, GVariant*, gpointer data) {
      auto* bound = static_cast<Bound*>(data);
      bound->second.run(*bound->first);
    };
    g_signal_connect_data(simple, "activate", G_CALLBACK(activate), new Bound(menus, action),
                          +[](gpointer data, GClosure*) { delete static_cast<Bound*>(data); }, GConnectFlags(0));
    g_action_map_add_action(G_ACTION_MAP(app), G_ACTION(simple));
    g_object_unref(simple);
    if (action.accel) {
      const char* accels[] = {action.accel, nullptr};
      gtk_application_set_accels_for_action(app, (std::string("app.") + action.name).c_str(), accels);
    }
  }
}

GtkWidget* item(GtkWidget* menu, const char* title, const char* action, const char* keys = nullptr) {
  GtkWidget* entry = gtk_menu_item_new_with_label(title);
  gtk_actionable_set_action_name(GTK_ACTIONABLE(entry), (std::string("app.") + action).c_str());
  if (keys) {
    guint key = 0;
    GdkModifierType mods;
    gtk_accelerator_parse(keys, &key, &mods);
    gtk_accel_label_set_accel(GTK_ACCEL_LABEL(gtk_bin_get_child(GTK_BIN(entry))), key, mods);
  }
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

void fillMenuBar(Menus* menus) {
  GtkWidget* bar = menus->bar;
  GtkWidget* app = submenu(bar, "Ondrel");
  item(app, "About Ondrel", "about");
  separator(app);
  if (menus->commands.checkForUpdates) {
    item(app, "Check for Updates…", "check-for-updates");
    separator(app);
  }
  item(app, "Quit", "quit", "<Control>q");

  GtkWidget* edit = submenu(bar, "Edit");
  item(edit, "Undo", "undo", "<Control>z");
  item(edit, "Redo", "redo", "<Control><Shift>z");
  separator(edit);
  item(edit, "Cut", "cut", "<Control>x");
  item(edit, "Copy", "copy", "<Control>c");
  item(edit, "Paste", "paste", "<Control>v");
  item(edit, "Paste and Match Style", "paste-plain", "<Control><Shift>v");
  separator(edit);
  item(edit, "Select All", "select-all", "<Control>a");

  GtkWidget* view = submenu(bar, "View");
  item(view, "Reload", "reload", "<Control>r");
  menus->toggleLogItem = item(view, "Show Log", "toggle-log", "<Control>l");
  // The title follows the panel's state each time the menu opens.
  g_signal_connect_swapped(view, "show", G_CALLBACK(+[](Menus* m) {
                             gtk_menu_item_set_label(GTK_MENU_ITEM(m->toggleLogItem),
                                                     m->commands.logShown() ? "Hide Log" : "Show Log");
                           }),
                           menus);
}

}  // namespace

GtkWidget* createMenus(GtkApplication* app, MenuCommands commands) {
  auto* menus = new Menus{std::move(commands)};  // lives as long as the application
  menus->bar = gtk_menu_bar_new();
  addActions(app, menus);
  fillMenuBar(menus);
  GtkWidget* bar = menus->bar;
  gtk_widget_show_all(bar);
  gtk_widget_set_no_show_all(bar, TRUE);
  gtk_widget_hide(bar);
  g_signal_connect(bar, "deactivate", G_CALLBACK(gtk_widget_hide), nullptr);
  gtk_widget_set_valign(bar, GTK_ALIGN_START);
  return bar;
}

void revealMenuBarOnLoneAlt(GtkWindow* window, GtkWidget* menuBar) {
  struct AltWatch {
    GtkWidget* bar;
    bool lone = false;  // the Alt key now down was pressed with nothing else
  };
  auto* watch = new AltWatch{menuBar};  // lives as long as the window
  g_signal_connect(window, "key-press-event", G_CALLBACK(+[](GtkWidget*, GdkEventKey* event, AltWatch* w) {
                     w->lone = isAltKey(event->keyval) && (event->state & gtk_accelerator_get_default_mod_mask()) == 0;
                     return FALSE;
                   }),
                   watch);
  g_signal_connect(window, "key-release-event", G_CALLBACK(+[](GtkWidget*, GdkEventKey* event, AltWatch* w) {
                     if (isAltKey(event->keyval) && w->lone && !gtk_widget_get_visible(w->bar)) revealMenuBar(w->bar);
                     w->lone = false;
                     return FALSE;
                   }),
                   watch);
}
