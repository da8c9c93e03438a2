#include "app/instance_prompt_gtk.h"

#include <gtk/gtk.h>

#include "app/instance_prompt_model.h"
#include "build_config.h"

namespace {

struct PromptUi {
  InstancePromptModel model;
  GtkWidget* window = nullptr;
  GtkWidget* field = nullptr;
  GtkWidget* errorLabel = nullptr;
  bool loopRunning = false;

  void finish() {
    if (loopRunning) {
      loopRunning = false;
      gtk_main_quit();
    }
  }

  void confirm() {
    const char* text = gtk_entry_get_text(GTK_ENTRY(field));
    if (model.confirm(text) == InstancePromptModel::Confirm::Accepted) {
      finish();
      return;
    }
    gtk_widget_show(errorLabel);
    gtk_widget_grab_focus(field);
  }

  void cancel() {
    model.cancel();
    finish();
  }
};

GtkWidget* label(const std::string& text, const char* cssClass) {
  GtkWidget* widget = gtk_label_new(text.c_str());
  gtk_label_set_xalign(GTK_LABEL(widget), 0.0f);
  gtk_label_set_line_wrap(GTK_LABEL(widget), TRUE);
  gtk_label_set_max_width_chars(GTK_LABEL(widget), 1);  // wrap at the box width, not the text's
  gtk_style_context_add_class(gtk_widget_get_style_context(widget), cssClass);
  return widget;
}

const char* kCss =
    ".prompt-heading { font-size: 17px; font-weight: 600; }"
    ".prompt-explanation { font-size: 13px; opacity: 0.7; }"
    ".prompt-field-label { font-size: 13px; font-weight: 600; }"
    ".prompt-field { font-size: 13px; min-height: 24px; }"
    ".prompt-error { font-size: 12px; color: rgb(255, 59, 48); }";

std::string firstPreferredLanguage() {
  const gchar* const* names = g_get_language_names();
  return names && names[0] ? names[0] : "";
}

// The heading, explanation, field and its error line.
GtkWidget* promptFields(PromptUi& ui, const InstancePromptTexts& texts) {
  GtkWidget* stack = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  GtkWidget* heading = label(texts.heading, "prompt-heading");
  GtkWidget* explanation = label(texts.explanation, "prompt-explanation");
  GtkWidget* fieldLabel = label(texts.fieldLabel, "prompt-field-label");
  ui.field = gtk_entry_new();
  gtk_entry_set_text(GTK_ENTRY(ui.field), ondrel::build::kDemoInstance);
  gtk_style_context_add_class(gtk_widget_get_style_context(ui.field), "prompt-field");
  ui.errorLabel = label(texts.error, "prompt-error");
  gtk_widget_set_no_show_all(ui.errorLabel, TRUE);

  // Spacing after each row: heading 2, explanation 12, field label 4, field 2.
  gtk_widget_set_margin_bottom(heading, 2);
  gtk_widget_set_margin_bottom(explanation, 12);
  gtk_widget_set_margin_bottom(fieldLabel, 4);
  gtk_widget_set_margin_bottom(ui.field, 2);
  for (GtkWidget* w : {heading, explanation, fieldLabel, ui.field, ui.errorLabel}) {
    gtk_box_pack_start(GTK_BOX(stack), w, FALSE, FALSE, 0);
  }
  return stack;
}

GtkWidget* promptButtons(const InstancePromptTexts& texts, GtkWidget*& okButton, GtkWidget*& cancelButton) {
  GtkWidget* buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
  gtk_widget_set_halign(buttons, GTK_ALIGN_END);
  gtk_widget_set_margin_top(buttons, 16);
  cancelButton = gtk_button_new_with_label(texts.cancel.c_str());
  okButton = gtk_button_new_with_label(texts.confirm.c_str());
  gtk_style_context_add_class(gtk_widget_get_style_context(okButton), GTK_STYLE_CLASS_SUGGESTED_ACTION);
  gtk_box_pack_start(GTK_BOX(buttons), cancelButton, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(buttons), okButton, FALSE, FALSE, 0);
  return buttons;
}

void connectPrompt(PromptUi& ui, GtkWidget* okButton, GtkWidget* cancelButton) {
  g_signal_connect_swapped(okButton, "clicked", G_CALLBACK(+[](PromptUi* p) { p->confirm(); }), &ui);
  g_signal_connect_swapped(cancelButton, "clicked", G_CALLBACK(+[](PromptUi* p) { p->cancel(); }), &ui);
  g_signal_connect_swapped(ui.field, "activate", G_CALLBACK(+[](PromptUi* p) { p->confirm(); }), &ui);
  g_signal_connect_swapped(ui.field, "changed", G_CALLBACK(+[](PromptUi* p) {
                             if (p->model.textChanged(gtk_entry_get_text(GTK_ENTRY(p->field)))) {
                               gtk_widget_hide(p->errorLabel);
                               // Shrink back to fit: the window grows and shrinks downward.
                               gtk_window_resize(GTK_WINDOW(p->window), 480, 1);
                             }
                           }),
                           &ui);
  g_signal_connect(ui.window, "key-press-event", G_CALLBACK(+[](GtkWidget*, GdkEventKey* event, PromptUi* p) {
                     if (event->keyval != GDK_KEY_Escape) return gboolean(FALSE);
                     p->cancel();
                     return gboolean(TRUE);
                   }),
                   &ui);
  // The close request cancels; the window is hidden below, not destroyed.
  g_signal_connect(ui.window, "delete-event", G_CALLBACK(+[](GtkWidget*, GdkEvent*, PromptUi* p) {
                     p->cancel();
                     return TRUE;
                   }),
                   &ui);
}

}  // namespace

std::optional<std::string> OndrelInstancePrompt::run() {
  InstancePromptTexts texts = instancePromptTextsFor(firstPreferredLanguage());
  PromptUi ui;

  GtkCssProvider* css = gtk_css_provider_new();
  gtk_css_provider_load_from_data(css, kCss, -1, nullptr);
  gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(css),
                                            GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);

  ui.window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(ui.window), "Ondrel");
  gtk_window_set_resizable(GTK_WINDOW(ui.window), FALSE);
  gtk_window_set_default_size(GTK_WINDOW(ui.window), 480, -1);
  gtk_window_set_position(GTK_WINDOW(ui.window), GTK_WIN_POS_CENTER);
  gtk_window_set_modal(GTK_WINDOW(ui.window), TRUE);

  GtkWidget* outer = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_widget_set_size_request(outer, 480, -1);
  gtk_widget_set_margin_start(outer, 24);
  gtk_widget_set_margin_end(outer, 24);
  gtk_widget_set_margin_top(outer, 20);
  gtk_widget_set_margin_bottom(outer, 20);

  GtkWidget* okButton = nullptr;
  GtkWidget* cancelButton = nullptr;
  GtkWidget* buttons = promptButtons(texts, okButton, cancelButton);
  gtk_box_pack_start(GTK_BOX(outer), promptFields(ui, texts), FALSE, FALSE, 0);
  gtk_box_pack_end(GTK_BOX(outer), buttons, FALSE, FALSE, 0);
  gtk_container_add(GTK_CONTAINER(ui.window), outer);
  connectPrompt(ui, okButton, cancelButton);

  gtk_widget_show_all(ui.window);
  gtk_widget_grab_focus(ui.field);
  gtk_editable_set_position(GTK_EDITABLE(ui.field), -1);
  gtk_window_present(GTK_WINDOW(ui.window));

  ui.loopRunning = true;
  gtk_main();

  gtk_widget_destroy(ui.window);
  gtk_style_context_remove_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(css));
  g_object_unref(css);
  // Let the window disappear from the screen before start-up goes on.
  while (gtk_events_pending()) gtk_main_iteration_do(FALSE);
  return ui.model.result();
}
