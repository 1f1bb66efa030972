// Ports: values from text (lists, assignments by label or index, limits, all
// or nothing, the messages of refusals).
#include "ZrPortFloatTextN.h"

#include <gtest/gtest.h>

namespace {

// Each text is set in turn: a null error means it is taken, "" that it is
// refused with any message; then the port shows `after`.
struct Step {
  const char* text;
  const char* error;
  const char* after;
};

void script(ZrPort& p, std::initializer_list<Step> steps) {
  for (const Step& s : steps) {
    std::string error;
    EXPECT_EQ(p.setFromText(s.text, error), s.error == nullptr) << s.text << ": " << error;
    if (s.error && *s.error) {
      EXPECT_EQ(error, s.error) << s.text;
    }
    EXPECT_EQ(p.getValueText(), s.after) << s.text;
  }
}

} // namespace

TEST(ZrPortFloatTextN, TextSettingLimitsAndRefusals) {
  ZrPortFloatTextN p(nullptr, "step", 2);
  p.setLabel(0, "initial:");
  p.setLabel(1, "final:");
  p.untouch();
  // Labels match without case and without the trailing colon; indices work.
  script(p, {{"50, 0.09765625", nullptr, "50,0.09765625"},
             {"  3 4e-1 ", nullptr, "3,0.4"},
             {"FINAL=0.25", nullptr, "3,0.25"},
             {"0=7,initial:=8", nullptr, "8,0.25"},
             {"5", "port 'step' needs 2 values (initial, final), got 1", "8,0.25"},
             {"5,abc", "port 'step': 'abc' for entry 1 (final) is not a number", "8,0.25"},
             {"middle=3", "port 'step' has no entry 'middle'; choose one of: initial, final",
              "8,0.25"},
             {"", "", "8,0.25"},
             {"1,nan", "", "8,0.25"},
             {"1,1e39", "", "8,0.25"}, // beyond float range
             {"1,2,", "", "8,0.25"}});
  // A refused text leaves the port as it was, not even new.
  p.untouch();
  script(p, {{"5,abc", "", "8,0.25"}});
  EXPECT_FALSE(p.isNew());

  ZrPortFloatTextN r(nullptr, "regularization", 4);
  r.setLabel(3, "Gaussian smoothing");
  r.setMinMax(3, 0.0f, 10.0f);
  script(r, {{"3=10", nullptr, "0,0,0,10"}, // bounds are inclusive
             {"3=10.5",
              "port 'regularization': 10.5 for entry 3 (Gaussian smoothing) is out of range; "
              "allowed: 0 to 10",
              "0,0,0,10"},
             {"Gaussian smoothing=-0.001", "", "0,0,0,10"}});
  // Code is trusted: it may leave the limits.
  r.setValue(3, 42.0f);
  EXPECT_FLOAT_EQ(r.getValue(3), 42.0f);

  // The value text reads back bit for bit.
  const float values[4] = {0.09765625f, 0.1f, -1.0e-7f, 123456.78f};
  r.setValues(values);
  ZrPortFloatTextN q(nullptr, "v", 4);
  std::string err;
  ASSERT_TRUE(q.setFromText(r.getValueText(), err)) << err;
  for (int i = 0; i < 4; i++)
    EXPECT_EQ(q.getValue(i), values[i]) << i;
}
