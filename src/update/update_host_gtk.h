#pragma once

// Installs the GTK dialogs and progress window as the updater's host.
// Call once after gtk_init.
void installGtkUpdateHost();
