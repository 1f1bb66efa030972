#include "RegElasticHistogramProbe.h"

#include <algorithm>

void RegElasticHistogramProbe::advance(std::vector<uint32_t>& stamps, uint32_t& current) {
  if (++current == 0) {
    // The stamps wrapped around: none may look current.
    std::fill(stamps.begin(), stamps.end(), 0u);
    current = 1;
  }
}

void RegElasticHistogramProbe::beginCache(const RegMutualInformation* cached) {
  const int nr = cached->numBinsRef, nm = cached->numBinsMod;
  const double* c = cached->histogram.data();
  const double n = (double)cached->numInside;
  // The rows in rising j, as getMarginalEntropies() adds them.
  hRef = 0.0;
  for (int i = 0; i < nr; i++) {
    double s = 0.0;
    for (int j = 0; j < nm; j++)
      s += c[(size_t)i * nm + j];
    const double p = s / n;
    if (p > 0)
      hRef -= p * std::log(p);
  }
}

void RegElasticHistogramProbe::beginPoint(const RegMutualInformation* out,
                                          RegMutualInformation* w) {
  boxOut = out;
  work = w;
  h = w->histogram.data();
  nRef = w->numBinsRef;
  nMod = w->numBinsMod;
  const size_t size = (size_t)nRef * nMod;
  if (blockStamp.size() != size) {
    blockStamp.assign(size, 0u);
    binStamp.assign(size, 0u);
    blockCurrent = collectCurrent = 1;
  }
  if (columnStamp.size() != (size_t)nMod)
    columnStamp.assign(nMod, 0u);
  columnChange.resize(nMod);
  blocks.clear();
  blocks.reserve(size);
  bins.reserve(size);
  touchedColumns.reserve(nMod);
  columns.assign(nMod, 0.0);
  const double* b = out->histogram.data();
  sJoint = 0.0;
  mass = 0.0;
  for (int i = 0; i < nRef; i++)
    for (int j = 0; j < nMod; j++) {
      const double v = b[(size_t)i * nMod + j];
      columns[j] += v;
      mass += v;
      sJoint += xlogx(v);
    }
  sModel = 0.0;
  for (double c : columns)
    sModel += xlogx(c);
}

double RegElasticHistogramProbe::finishProbe() {
  const double* b = boxOut->histogram.data();
  advance(binStamp, collectCurrent);
  // columnStamp shares collectCurrent; it is cleared when binStamp wraps.
  if (collectCurrent == 1)
    std::fill(columnStamp.begin(), columnStamp.end(), 0u);
  bins.clear();
  touchedColumns.clear();
  for (int k : blocks)
    for (int e : {k, k + nMod, k + 1, k + nMod + 1}) {
      if (binStamp[e] == collectCurrent)
        continue;
      binStamp[e] = collectCurrent;
      bins.push_back(e);
      const int j = e % nMod;
      if (columnStamp[j] != collectCurrent) {
        columnStamp[j] = collectCurrent;
        touchedColumns.push_back(j);
        columnChange[j] = 0.0;
      }
      columnChange[j] += h[e] - b[e];
    }
  double dJoint = 0.0, dMass = 0.0;
  for (int e : bins) {
    dJoint += xlogx(h[e]) - xlogx(b[e]);
    dMass += h[e] - b[e];
  }
  double dModel = 0.0;
  for (int j : touchedColumns)
    dModel += xlogx(columns[j] + columnChange[j]) - xlogx(columns[j]);
  // With p = h / n: -sum p log p = (mass log n - sum h log h) / n.
  const double n = (double)work->numInside;
  double hJoint = 0.0, hModel = 0.0;
  if (n > 0) {
    const double logN = std::log(n);
    const double m = mass + dMass;
    hJoint = (m * logN - (sJoint + dJoint)) / n;
    hModel = (m * logN - (sModel + dModel)) / n;
  }
  const double result = work->resultOf(hRef, hModel, hJoint, work->numInside, work->numTotal);
  for (int e : bins)
    h[e] = b[e];
  work->numInside = boxOut->numInside;
  work->numTotal = boxOut->numTotal;
  blocks.clear();
  advance(blockStamp, blockCurrent);
  return result;
}
