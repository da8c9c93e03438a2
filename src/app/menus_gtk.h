#pragma once

#include <gtk/gtk.h>

class Updater;

// The menu bar: hidden until F10 or a lone Alt press reveals it over the top
// of the web view, hidden again when it closes. Its key equivalents work
// while it is hidden.
GtkWidget* createMenuBar(Updater& updater);

// Connects the window's keyboard shortcuts and the menu reveal keys.
void installKeyboardShortcuts(GtkWindow* window, GtkWidget* menuBar);
