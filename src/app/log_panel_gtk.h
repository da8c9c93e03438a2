#pragma once

#include <gtk/gtk.h>

// The hidden log panel at the bottom of the main window. Returns the scrolled
// window; the text view is stored in gLog and lines start flowing into it.
GtkWidget* createLogPanel();

void toggleLogPanel();
bool logPanelShown();
