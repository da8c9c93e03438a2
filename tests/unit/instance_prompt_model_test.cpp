#include "app/instance_prompt_model.h"

#include <gtest/gtest.h>

#include <string>

#include "build_config.h"

namespace {

const std::string D = ondrel::build::kServiceDomain;

TEST(InstancePromptTexts, GermanForAnyGermanLocaleEnglishOtherwise) {
  const InstancePromptTexts german{"Mit Ondrel verbinden",
                                   "Gib die Adresse deiner Ondrel-Instanz ein.",
                                   "Instanz-Adresse",
                                   "Weiter",
                                   "Abbrechen",
                                   "Die Adresse muss auf " + D + " enden oder localhost sein."};
  const InstancePromptTexts english{"Connect to Ondrel",
                                    "Enter the address of your Ondrel instance.",
                                    "Instance address",
                                    "Continue",
                                    "Cancel",
                                    "The address must end with " + D + " or be localhost."};
  const std::pair<std::string, const InstancePromptTexts*> cases[] = {
      {"de", &german},     {"de_CH.UTF-8", &german}, {"de_DE", &german}, {"fr", &english},
      {"en_US", &english}, {"", &english},           {"C", &english},    {"nl_DE", &english},
  };
  for (const auto& [language, want] : cases) {
    const auto got = instancePromptTextsFor(language);
    EXPECT_EQ(got.heading, want->heading) << language;
    EXPECT_EQ(got.explanation, want->explanation) << language;
    EXPECT_EQ(got.fieldLabel, want->fieldLabel) << language;
    EXPECT_EQ(got.confirm, want->confirm) << language;
    EXPECT_EQ(got.cancel, want->cancel) << language;
    EXPECT_EQ(got.error, want->error) << language;
  }
}

TEST(InstancePromptModel, AcceptsAllowedAddressesNormalised) {
  const std::pair<std::string, std::string> cases[] = {
      {ondrel::build::kDemoInstance, std::string("https://") + ondrel::build::kDemoInstance},
      {"team", "https://team.on." + D},
      {" team\n", "https://team.on." + D},
      {"https://team.on." + D + "/", "https://team.on." + D},
      {"localhost:3000", "https://localhost:3000"},
      {"http://127.0.0.1:8080/", "http://127.0.0.1:8080"},
  };
  for (const auto& [typed, url] : cases) {
    InstancePromptModel model;
    EXPECT_EQ(model.confirm(typed), InstancePromptModel::Confirm::Accepted) << typed;
    EXPECT_TRUE(model.finished());
    EXPECT_FALSE(model.errorShown());
    EXPECT_EQ(model.result(), url);
  }
}

TEST(InstancePromptModel, RefusalShowsErrorUntilTextBecomesValid) {
  InstancePromptModel model;
  for (const std::string& typed : {std::string("example.com"), std::string(), "ftp://x." + D, "https://evil" + D}) {
    EXPECT_EQ(model.confirm(typed), InstancePromptModel::Confirm::Refused) << typed;
    EXPECT_TRUE(model.errorShown());
    EXPECT_FALSE(model.finished());
    EXPECT_EQ(model.result(), std::nullopt);
  }
  EXPECT_FALSE(model.textChanged("other.com"));
  EXPECT_TRUE(model.errorShown()) << "another invalid address leaves the error";
  EXPECT_TRUE(model.textChanged("team"));
  EXPECT_FALSE(model.errorShown()) << "a valid address hides it at once";
  EXPECT_FALSE(model.finished()) << "acceptance still needs a confirm";
  EXPECT_EQ(model.result(), std::nullopt);
  EXPECT_FALSE(model.textChanged("bad.com")) << "no validation while the error is hidden";
  EXPECT_FALSE(model.errorShown());
  EXPECT_EQ(model.confirm("team"), InstancePromptModel::Confirm::Accepted);
  EXPECT_EQ(model.result(), "https://team.on." + D);
}

TEST(InstancePromptModel, ClearingBeforeAnyConfirmShowsNothing) {
  InstancePromptModel model;
  EXPECT_FALSE(model.textChanged(""));
  EXPECT_FALSE(model.textChanged("example.com"));
  EXPECT_FALSE(model.textChanged("team")) << "nothing to hide";
  EXPECT_FALSE(model.errorShown());
  EXPECT_EQ(model.confirm(""), InstancePromptModel::Confirm::Refused);
  EXPECT_TRUE(model.errorShown());
}

TEST(InstancePromptModel, CancelGivesNoResult) {
  InstancePromptModel fresh;
  fresh.cancel();
  EXPECT_TRUE(fresh.finished());
  EXPECT_EQ(fresh.result(), std::nullopt);

  InstancePromptModel afterError;
  afterError.confirm("example.com");
  afterError.textChanged("team");
  afterError.cancel();
  EXPECT_TRUE(afterError.finished());
  EXPECT_EQ(afterError.result(), std::nullopt);
}

}  // namespace
