#include "app/instance_prompt_model.h"

#include <gtest/gtest.h>

#include <string>

#include "build_config.h"
#include "service_domain.h"

namespace {

TEST(InstancePromptTexts, GermanForAnyGermanLocaleEnglishOtherwise) {
  const auto german = instancePromptTextsFor("de"), english = instancePromptTextsFor("en_US");
  EXPECT_NE(german.heading, english.heading);
  for (const auto& texts : {german, english}) EXPECT_NE(texts.error.find(D), std::string::npos) << texts.error;
  EXPECT_EQ(instancePromptTextsFor("de_CH.UTF-8").confirm, german.confirm);
  for (const char* language : {"", "C", "nl_DE"}) EXPECT_EQ(instancePromptTextsFor(language).cancel, english.cancel);
}

TEST(InstancePromptModel, AcceptsAllowedAddressesNormalised) {
  const std::pair<std::string, std::string> cases[] = {
      {ondrel::build::kDemoInstance, std::string("https://") + ondrel::build::kDemoInstance},
      {" team\n", "https://team.on." + D},
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
  EXPECT_FALSE(model.textChanged("example.com")) << "nothing shown before a confirm";
  EXPECT_FALSE(model.errorShown());
  EXPECT_EQ(model.confirm("example.com"), InstancePromptModel::Confirm::Refused);
  EXPECT_TRUE(model.errorShown());
  EXPECT_FALSE(model.finished());
  EXPECT_FALSE(model.textChanged("other.com"));
  EXPECT_TRUE(model.errorShown()) << "another invalid address leaves the error";
  EXPECT_TRUE(model.textChanged("team"));
  EXPECT_FALSE(model.errorShown()) << "a valid address hides it at once";
  EXPECT_EQ(model.result(), std::nullopt) << "acceptance still needs a confirm";
  EXPECT_FALSE(model.textChanged("bad.com")) << "no validation while the error is hidden";
  model.cancel();
  EXPECT_TRUE(model.finished());
  EXPECT_EQ(model.result(), std::nullopt);
}

}  // namespace
