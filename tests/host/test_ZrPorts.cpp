// Ports: values from code and from text, limits, labels, menus, buttons, and
// the descriptions shown by help output.
#include "ZrPortButtonList.h"
#include "ZrPortDoIt.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortInfo.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrPortRadioBox.h"
#include "ZrPortToggleList.h"

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

} // namespace

TEST(ZrPortFloatTextN, TextSettingAcceptsListsAndAssignments) {
  ZrPortFloatTextN p(nullptr, "step", 2);
  p.setLabel("Optimizer step:");
  p.setLabel(0, "initial:");
  p.setLabel(1, "final:");
  std::string err;

  EXPECT_TRUE(p.setFromText("50, 0.09765625", err)) << err;
  EXPECT_FLOAT_EQ(p.getValue(0), 50.0f);
  EXPECT_EQ(p.getValue(1), 0.09765625f);
  EXPECT_TRUE(p.isNew());

  EXPECT_TRUE(p.setFromText("  3 4e-1 ", err)) << err;
  EXPECT_FLOAT_EQ(p.getValue(0), 3.0f);
  EXPECT_FLOAT_EQ(p.getValue(1), 0.4f);

  // Labels match without case and without the trailing colon; indices work.
  EXPECT_TRUE(p.setFromText("FINAL=0.25", err)) << err;
  EXPECT_FLOAT_EQ(p.getValue(0), 3.0f);
  EXPECT_FLOAT_EQ(p.getValue(1), 0.25f);
  EXPECT_TRUE(p.setFromText("0=7,initial:=8", err)) << err;
  EXPECT_FLOAT_EQ(p.getValue(0), 8.0f);
}

TEST(ZrPortFloatTextN, BadTextChangesNothingAndSaysWhy) {
  ZrPortFloatTextN p(nullptr, "step", 2);
  p.setLabel(0, "initial:");
  p.setLabel(1, "final:");
  p.setValue(0, 1.0f);
  p.setValue(1, 2.0f);
  p.untouch();
  std::string err;

  EXPECT_FALSE(p.setFromText("5", err));
  EXPECT_EQ(err, "port 'step' needs 2 values (initial, final), got 1");
  EXPECT_FALSE(p.setFromText("5,abc", err));
  EXPECT_EQ(err, "port 'step': 'abc' for entry 1 (final) is not a number");
  EXPECT_FALSE(p.setFromText("middle=3", err));
  EXPECT_EQ(err, "port 'step' has no entry 'middle'; choose one of: initial, final");
  EXPECT_FALSE(p.setFromText("", err));
  EXPECT_FALSE(p.setFromText("1,nan", err));
  EXPECT_FALSE(p.setFromText("1,1e39", err)); // beyond float range
  EXPECT_FALSE(p.setFromText("1,2,", err));

  // The first value was good, the second bad: nothing at all was set.
  EXPECT_FLOAT_EQ(p.getValue(0), 1.0f);
  EXPECT_FLOAT_EQ(p.getValue(1), 2.0f);
  EXPECT_FALSE(p.isNew());
}

TEST(ZrPortFloatTextN, LimitsBindTextButNotCode) {
  ZrPortFloatTextN p(nullptr, "regularization", 4);
  p.setLabel(3, "Gaussian smoothing");
  p.setMinMax(3, 0.0f, 10.0f);
  std::string err;

  EXPECT_TRUE(p.setFromText("3=10", err)) << err; // bounds are inclusive
  EXPECT_FLOAT_EQ(p.getValue(3), 10.0f);
  EXPECT_FALSE(p.setFromText("3=10.5", err));
  EXPECT_EQ(err, "port 'regularization': 10.5 for entry 3 (Gaussian smoothing) is out of range; "
                 "allowed: 0 to 10");
  EXPECT_FALSE(p.setFromText("Gaussian smoothing=-0.001", err));
  EXPECT_FLOAT_EQ(p.getValue(3), 10.0f);

  // Code is trusted: it may leave the limits.
  p.setValue(3, 42.0f);
  EXPECT_FLOAT_EQ(p.getValue(3), 42.0f);

  // The all-entries form.
  p.setMinMax(-1.0f, 1.0f);
  EXPECT_FLOAT_EQ(p.getMinValue(0), -1.0f);
  EXPECT_FLOAT_EQ(p.getMaxValue(3), 1.0f);
  EXPECT_FALSE(p.setFromText("0,0,2,0", err));
  EXPECT_NE(err.find("entry 2"), std::string::npos);
}

TEST(ZrPortFloatTextN, ValueTextRoundTripsExactly) {
  ZrPortFloatTextN p(nullptr, "v", 4);
  const float values[4] = {0.09765625f, 0.1f, -1.0e-7f, 123456.78f};
  p.setValues(values);
  std::string text = p.getValueText();
  EXPECT_EQ(text.substr(0, 15), "0.09765625,0.1,");

  ZrPortFloatTextN q(nullptr, "v", 4);
  std::string err;
  ASSERT_TRUE(q.setFromText(text, err)) << err;
  for (int i = 0; i < 4; i++)
    EXPECT_EQ(q.getValue(i), values[i]) << i; // bit-exact
}

TEST(ZrPortIntTextN, TextSettingAndLimits) {
  ZrPortIntTextN p(nullptr, "coarsestResolution", 3);
  p.setLabel(0, "x");
  p.setLabel(1, "y");
  p.setLabel(2, "z");
  p.setMinMax(1, 16);
  p.setMinMax(2, 1, 1);
  std::string err;

  EXPECT_TRUE(p.setFromText("4 8 1", err)) << err;
  EXPECT_EQ(p.getValue(0), 4);
  EXPECT_EQ(p.getValue(1), 8);
  EXPECT_TRUE(p.setFromText("Y=16", err)) << err;
  EXPECT_EQ(p.getValue(1), 16);

  EXPECT_FALSE(p.setFromText("z=2", err));
  EXPECT_EQ(err, "port 'coarsestResolution': 2 for entry 2 (z) is out of range; allowed: 1 to 1");
  EXPECT_FALSE(p.setFromText("4,2.5,1", err));
  EXPECT_EQ(err, "port 'coarsestResolution': '2.5' for entry 1 (y) is not a whole number");
  EXPECT_FALSE(p.setFromText("4,x,1", err));
  EXPECT_EQ(err, "port 'coarsestResolution': 'x' for entry 1 (y) is not a number");
  EXPECT_FALSE(p.setFromText("99999999999", err));
  EXPECT_EQ(p.getValue(0), 4);
  EXPECT_EQ(p.getValueText(), "4,16,1");

  // A single-entry port takes a single value; setValue(v) sets all entries.
  ZrPortIntTextN one(nullptr, "refineGrid", 1);
  one.setMinMax(0, 0, 10);
  EXPECT_TRUE(one.setFromText("3", err)) << err;
  EXPECT_EQ(one.getValue(), 3);
  EXPECT_FALSE(one.setFromText("11", err));
  EXPECT_EQ(err, "port 'refineGrid': 11 for entry 0 is out of range; allowed: 0 to 10");
  p.setValue(5);
  EXPECT_EQ(p.getValueText(), "5,5,5");
}

TEST(ZrPortToggleList, TextForms) {
  ZrPortToggleList p(nullptr, "options", 2);
  p.setLabel(0, "Ignore finest resolution");
  p.setLabel(1, "Fix control points in low entropy regions");
  std::string err;

  EXPECT_TRUE(p.setFromText("on,off", err)) << err;
  EXPECT_EQ(p.getValue(0), 1);
  EXPECT_EQ(p.getValue(1), 0);
  EXPECT_TRUE(p.setFromText("1=ON", err)) << err;
  EXPECT_EQ(p.getValue(1), 1);
  EXPECT_TRUE(p.setFromText("ignore finest resolution = no", err)) << err;
  EXPECT_EQ(p.getValue(0), 0);
  EXPECT_TRUE(p.setFromText("true 0", err)) << err;
  EXPECT_EQ(p.getValueText(), "on,off");

  EXPECT_FALSE(p.setFromText("on", err)); // two toggles need two values
  EXPECT_EQ(err,
            "port 'options' needs 2 values (Ignore finest resolution, Fix control points in low "
            "entropy regions), got 1");
  EXPECT_FALSE(p.setFromText("0=maybe", err));
  EXPECT_EQ(err, "port 'options': 'maybe' for entry 0 (Ignore finest resolution) is not a toggle "
                 "state; use on or off");
  EXPECT_FALSE(p.setFromText("2=on", err));
  EXPECT_FALSE(p.setFromText("on,0=off", err)); // mixed forms
  EXPECT_EQ(p.getValueText(), "on,off");

  // One toggle: any single value; code stores 0 or 1.
  ZrPortToggleList one(nullptr, "extendedOptions", 1);
  EXPECT_TRUE(one.setFromText("yes", err)) << err;
  EXPECT_EQ(one.getValue(0), 1);
  one.setValue(0, 7);
  EXPECT_EQ(one.getValue(0), 1);

  // Growing keeps values and adds off toggles.
  p.setNum(3);
  EXPECT_EQ(p.getValueText(), "on,off,off");
}

TEST(ZrPortMultiMenu, ResizingLabelsAndIndices) {
  ZrPortMultiMenu m(nullptr, "optimizer", 2);
  m.setNum(0, 5);
  m.setLabel(0, 0, "Extensive direction");
  m.setLabel(0, 4, "Line search");
  m.setNum(1, 2);
  m.setLabel(1, 0, "Ramp");
  m.setLabel(1, 1, "Cycles");
  EXPECT_EQ(m.getNumMenus(), 2);
  EXPECT_EQ(m.getNumEntries(), 2);
  EXPECT_EQ(m.getNum(0), 5);
  EXPECT_EQ(m.getNum(1), 2);
  EXPECT_STREQ(m.getLabel(1, 1), "Cycles");
  EXPECT_STREQ(m.getLabel(4), "Line search"); // the item of menu 0
  EXPECT_STREQ(m.getLabel(1, 5), "");

  m.setIndex(4);
  m.setIndex(1, 1);
  EXPECT_EQ(m.getIndex(), 4);
  EXPECT_EQ(m.getIndex(1), 1);
  EXPECT_STREQ(m.getSelectedLabel(), "Line search");

  // Shrinking past the selection falls back to the first item; shrinking
  // above it keeps the selection.
  m.untouch();
  m.setNum(0, 6);
  EXPECT_EQ(m.getIndex(), 4);
  EXPECT_FALSE(m.isNew());
  m.setNum(0, 4);
  EXPECT_EQ(m.getIndex(), 0);
  EXPECT_TRUE(m.isNew());

  // The metric menu grows by "Label difference" and shrinks back.
  ZrPortMultiMenu metric(nullptr, "metric");
  makeMetricMenu(metric);
  metric.setNum(5);
  metric.setLabel(4, "Label difference");
  metric.setIndex(4);
  EXPECT_STREQ(metric.getSelectedLabel(), "Label difference");
  metric.setNum(4);
  EXPECT_EQ(metric.getIndex(), 0);
  EXPECT_EQ(metric.getNum(), 4);

  // A menu beyond the last adds menus.
  metric.setNum(2, 3);
  EXPECT_EQ(metric.getNumMenus(), 3);
  EXPECT_EQ(metric.getNum(1), 0);
}

TEST(ZrPortMultiMenu, TextSelection) {
  ZrPortMultiMenu metric(nullptr, "metric");
  makeMetricMenu(metric);
  std::string err;

  EXPECT_TRUE(metric.setFromText("euclidean", err)) << err;
  EXPECT_EQ(metric.getIndex(), 2);
  EXPECT_TRUE(metric.setFromText(" 3 ", err)) << err;
  EXPECT_EQ(metric.getIndex(), 3);
  EXPECT_TRUE(metric.setFromText("0:Mutual Information", err)) << err;
  EXPECT_EQ(metric.getIndex(), 1);

  EXPECT_FALSE(metric.setFromText("Foo", err));
  EXPECT_EQ(err, "port 'metric' has no entry 'Foo'; choose one of: Normalized Mutual Information, "
                 "Mutual Information, Euclidean, Correlation");
  EXPECT_FALSE(metric.setFromText("4", err));
  EXPECT_FALSE(metric.setFromText("1:Euclidean", err));
  EXPECT_EQ(err, "port 'metric' has no menu 1; it has 1 menu");
  EXPECT_EQ(metric.getIndex(), 1);

  // Insensitive items cannot be chosen and are not offered.
  metric.setItemSensitivity(0, 3, 0);
  EXPECT_FALSE(metric.setFromText("Correlation", err));
  EXPECT_EQ(err, "port 'metric': entry 'Correlation' is inactive; choose one of: Normalized Mutual "
                 "Information, Mutual Information, Euclidean");
  metric.setIndex(3); // code may
  EXPECT_EQ(metric.getIndex(), 3);

  // Several menus; an insensitive menu refuses text; all or nothing.
  ZrPortMultiMenu opt(nullptr, "optimizer", 2);
  opt.setNum(0, 5);
  opt.setLabel(0, 2, "Quasi Newton");
  opt.setNum(1, 2);
  opt.setLabel(1, 0, "Ramp");
  opt.setLabel(1, 1, "Cycles");
  EXPECT_TRUE(opt.setFromText("Quasi Newton, 1:cycles", err)) << err;
  EXPECT_EQ(opt.getIndex(0), 2);
  EXPECT_EQ(opt.getIndex(1), 1);
  EXPECT_EQ(opt.getValueText(), "Quasi Newton,1:Cycles");
  opt.setSensitivity(1, 0);
  EXPECT_FALSE(opt.setFromText("0, 1:Ramp", err));
  EXPECT_EQ(err, "port 'optimizer' menu 1 is inactive");
  EXPECT_EQ(opt.getIndex(0), 2);
  EXPECT_EQ(opt.getIndex(1), 1);

  // The value text reads back to the same selection (unlabelled items by
  // index).
  opt.setSensitivity(1, 1);
  opt.setIndex(0, 3);
  ZrPortMultiMenu copy(nullptr, "optimizer", 2);
  copy.setNum(0, 5);
  copy.setNum(1, 2);
  copy.setLabel(1, 1, "Cycles");
  ASSERT_TRUE(copy.setFromText(opt.getValueText(), err)) << err;
  EXPECT_EQ(copy.getIndex(0), 3);
  EXPECT_EQ(copy.getIndex(1), 1);
}

TEST(ZrPortButtonList, HitsSnapsAndSensitivity) {
  ZrPortButtonList b(nullptr, "action", 3);
  b.setLabel(0, "Align centers");
  b.setLabel(1, "Align principal axes");
  b.setLabel(2, "Register");
  std::string err;

  EXPECT_FALSE(b.wasAnyHit());
  EXPECT_TRUE(b.hit(2));
  EXPECT_TRUE(b.wasHit(2));
  EXPECT_FALSE(b.wasHit(0));
  EXPECT_TRUE(b.isNew());
  b.clearHits();
  EXPECT_FALSE(b.wasHit(2));

  // Insensitive buttons refuse hits from code and from text.
  b.setSensitivity(1, 0);
  b.untouch();
  EXPECT_FALSE(b.hit(1));
  EXPECT_FALSE(b.wasHit(1));
  EXPECT_FALSE(b.isNew());
  EXPECT_FALSE(b.setFromText("Align principal axes", err));
  EXPECT_EQ(err, "port 'action': button 'Align principal axes' is inactive");
  EXPECT_FALSE(b.hit(3));

  // Text: label or index, several at once, all or nothing.
  EXPECT_TRUE(b.setFromText("register, 0", err)) << err;
  EXPECT_TRUE(b.wasHit(0));
  EXPECT_TRUE(b.wasHit(2));
  b.clearHits();
  EXPECT_FALSE(b.setFromText("Register,Foo", err));
  EXPECT_EQ(err, "port 'action' has no button 'Foo'; choose one of: Align centers, Align "
                 "principal axes, Register");
  EXPECT_FALSE(b.wasHit(2));

  // A snapped button counts as pressed on every run while it is sensitive.
  b.setSnap(2, true);
  EXPECT_TRUE(b.wasHit(2));
  b.clearHits();
  EXPECT_TRUE(b.wasHit(2));
  b.setSensitivity(2, 0);
  EXPECT_FALSE(b.wasHit(2));
  b.setSensitivity(2, 1);
  b.setSnap(2, false);
  EXPECT_FALSE(b.wasHit(2));
  EXPECT_EQ(b.getValueText(), "");
}

TEST(ZrPortDoIt, AnyTextPresses) {
  ZrPortDoIt d(nullptr, "action");
  std::string err;
  EXPECT_STREQ(d.getLabel(0), "DoIt");
  EXPECT_EQ(d.getNum(), 1);
  EXPECT_TRUE(d.setFromText("", err)) << err;
  EXPECT_TRUE(d.wasHit());
  d.clearHits();
  EXPECT_TRUE(d.setFromText("hit", err)) << err;
  EXPECT_TRUE(d.wasHit());
  d.clearHits();
  d.setSensitivity(0, 0);
  EXPECT_FALSE(d.setFromText("hit", err));
  EXPECT_FALSE(d.hit());
  d.setSensitivity(0, 1);
  d.setSnap(true);
  EXPECT_TRUE(d.isSnapped());
  EXPECT_TRUE(d.wasHit());
}

TEST(ZrPortRadioBox, TextAndCodeValues) {
  ZrPortRadioBox r(nullptr, "register", 2);
  r.setLabel(0, "2D");
  r.setLabel(1, "3D");
  r.setValue(1);
  std::string err;

  EXPECT_TRUE(r.setFromText("2d", err)) << err;
  EXPECT_EQ(r.getValue(), 0);
  EXPECT_TRUE(r.setFromText("1", err)) << err;
  EXPECT_EQ(r.getValue(), 1);
  EXPECT_EQ(r.getValueText(), "3D");
  EXPECT_FALSE(r.setFromText("2", err));
  EXPECT_EQ(err, "port 'register' has no entry '2'; choose one of: 2D, 3D");
  r.setSensitivity(0, 0);
  EXPECT_FALSE(r.setFromText("2D", err));
  EXPECT_EQ(err, "port 'register': entry '2D' is inactive");
  EXPECT_EQ(r.getValue(), 1);

  // Code may select a value beyond the buttons (a mode scripts reach).
  r.setValue(2);
  EXPECT_EQ(r.getValue(), 2);
  EXPECT_EQ(r.getValueText(), "2");
}

TEST(ZrPortInfo, FormatsAndRefusesText) {
  ZrPortInfo info(nullptr, "statistics");
  info.setValue("mean %g dev %g rms %g max %g", 1.5, 0.25, 2.0, 4.0);
  EXPECT_STREQ(info.getValue(), "mean 1.5 dev 0.25 rms 2 max 4");
  EXPECT_TRUE(info.isNew());
  std::string err;
  EXPECT_FALSE(info.setFromText("x", err));
  EXPECT_EQ(err, "port 'statistics' shows information and cannot be set");
  EXPECT_STREQ(info.getValue(), "mean 1.5 dev 0.25 rms 2 max 4");
  // Long texts are not cut.
  std::string longText(3000, 'a');
  info.setValue("%s", longText.c_str());
  EXPECT_EQ(std::string(info.getValue()), longText);
}

TEST(ZrPort, DescriptionsForHelp) {
  ZrPortFloatTextN step(nullptr, "step", 2);
  step.setLabel("Optimizer step:");
  step.setLabel(0, "initial:");
  step.setLabel(1, "final:");
  step.setValue(0, 50.0f);
  step.setValue(1, 0.09765625f);
  step.setMinMax(0, 0.0f, 100.0f);
  step.setSensitivity(1, 0);
  EXPECT_EQ(step.toText(), "step: float values \"Optimizer step:\"\n"
                           "    initial = 50 [0 to 100]\n"
                           "    final = 0.09765625 (inactive)\n");

  ZrPortToggleList t(nullptr, "extensiveSearch", 1);
  t.hide();
  EXPECT_EQ(t.toText(), "extensiveSearch: toggles (hidden)\n    0 = off\n");

  ZrPortMultiMenu metric(nullptr, "metric");
  makeMetricMenu(metric);
  metric.setIndex(2);
  EXPECT_EQ(metric.toText(),
            "metric: menu\n    menu 0 = Euclidean; choices: 0 Normalized Mutual Information, "
            "1 Mutual Information, 2 Euclidean, 3 Correlation\n");

  ZrPortIntTextN grid(nullptr, "initialGridSize", 3);
  grid.setMinMax(0, 4, 2147483647);
  grid.setValue(4);
  EXPECT_EQ(grid.toText(),
            "initialGridSize: integer values\n    0 = 4 [at least 4]\n    1 = 4\n    2 = 4\n");
}
