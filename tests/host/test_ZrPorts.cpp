// Ports: values from text (lists, assignments by label or index, limits, all
// or nothing, the messages of refusals) and menus.
#include "ZrPortFloatTextN.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"

#include <gtest/gtest.h>

namespace {

// A menu set up as a registration module sets up its metric menu.
void makeMetricMenu(ZrPortMultiMenu& m) {
  m.setNum(4);
  m.setLabel(0, "Normalized Mutual Information");
  m.setLabel(1, "Mutual Information");
  m.setLabel(2, "Euclidean");
  m.setLabel(3, "Correlation");
}

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

TEST(ZrPortIntTextN, TextSettingAndLimits) {
  ZrPortIntTextN p(nullptr, "coarsestResolution", 3);
  p.setLabel(0, "x");
  p.setLabel(1, "y");
  p.setLabel(2, "z");
  p.setMinMax(1, 16);
  p.setMinMax(2, 1, 1);
  script(p,
         {{"4 8 1", nullptr, "4,8,1"},
          {"Y=16", nullptr, "4,16,1"},
          {"z=2", "port 'coarsestResolution': 2 for entry 2 (z) is out of range; allowed: 1 to 1",
           "4,16,1"},
          {"4,2.5,1", "port 'coarsestResolution': '2.5' for entry 1 (y) is not a whole number",
           "4,16,1"},
          {"4,x,1", "port 'coarsestResolution': 'x' for entry 1 (y) is not a number", "4,16,1"},
          {"99999999999", "", "4,16,1"}});
  p.setValue(5);
  EXPECT_EQ(p.getValueText(), "5,5,5");
  // A single-entry port takes a single value.
  ZrPortIntTextN one(nullptr, "refineGrid", 1);
  one.setMinMax(0, 0, 10);
  script(one, {{"3", nullptr, "3"},
               {"11", "port 'refineGrid': 11 for entry 0 is out of range; allowed: 0 to 10", "3"}});
}

TEST(ZrPortMultiMenu, SelectionByTextAndResizing) {
  ZrPortMultiMenu metric(nullptr, "metric");
  makeMetricMenu(metric);
  script(metric,
         {{"euclidean", nullptr, "Euclidean"},
          {" 3 ", nullptr, "Correlation"},
          {"0:Mutual Information", nullptr, "Mutual Information"},
          {"Foo",
           "port 'metric' has no entry 'Foo'; choose one of: Normalized Mutual Information, "
           "Mutual Information, Euclidean, Correlation",
           "Mutual Information"},
          {"4", "", "Mutual Information"},
          {"1:Euclidean", "port 'metric' has no menu 1; it has 1 menu", "Mutual Information"}});
  // Insensitive items cannot be chosen and are not offered; code may.
  metric.setItemSensitivity(0, 3, 0);
  script(metric, {{"Correlation",
                   "port 'metric': entry 'Correlation' is inactive; choose one of: Normalized "
                   "Mutual Information, Mutual Information, Euclidean",
                   "Mutual Information"}});
  metric.setIndex(3);
  EXPECT_EQ(metric.getIndex(), 3);
  // Growing by "Label difference" and shrinking back past the selection falls
  // back to the first item, and counts as a change; shrinking above it keeps
  // the selection.
  metric.setNum(5);
  metric.setLabel(4, "Label difference");
  metric.setIndex(4);
  metric.untouch();
  metric.setNum(6);
  EXPECT_EQ(metric.getIndex(), 4);
  EXPECT_FALSE(metric.isNew());
  metric.setNum(4);
  EXPECT_EQ(metric.getIndex(), 0);
  EXPECT_TRUE(metric.isNew());

  // Several menus; an insensitive menu refuses text; all or nothing; the
  // value text reads back to the same selection (unlabelled items by index).
  ZrPortMultiMenu opt(nullptr, "optimizer", 2);
  opt.setNum(0, 5);
  opt.setLabel(0, 2, "Quasi Newton");
  opt.setNum(1, 2);
  opt.setLabel(1, 0, "Ramp");
  opt.setLabel(1, 1, "Cycles");
  EXPECT_STREQ(opt.getLabel(1, 5), "");
  script(opt, {{"Quasi Newton, 1:cycles", nullptr, "Quasi Newton,1:Cycles"}});
  opt.setSensitivity(1, 0);
  script(opt, {{"0, 1:Ramp", "port 'optimizer' menu 1 is inactive", "Quasi Newton,1:Cycles"}});
  opt.setSensitivity(1, 1);
  opt.setIndex(0, 3);
  ZrPortMultiMenu copy(nullptr, "optimizer", 2);
  copy.setNum(0, 5);
  copy.setNum(1, 2);
  copy.setLabel(1, 1, "Cycles");
  script(copy, {{opt.getValueText().c_str(), nullptr, "3,1:Cycles"}});
  // A menu beyond the last adds menus.
  metric.setNum(2, 3);
  EXPECT_EQ(metric.getNumMenus(), 3);
}
