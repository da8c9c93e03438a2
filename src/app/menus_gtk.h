#pragma once

#include <gtk/gtk.h>

// The menu bar: hidden until F10 or a lone Alt press reveals it over the top
// of the web view, hidden again when it closes. Its key equivalents work
// while it is hidden.
GtkWidget* createMenuBar();

// Connects the window's keyboard shortcuts and the menu reveal keys.
void installKeyboardShortcuts(GtkWindow* window, GtkWidget* menuBar);
