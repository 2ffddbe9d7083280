#include "client/appliances.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "client/format.h"

namespace acp {
namespace {

bool ComesBefore(const Appliance &a, const Appliance &b) {
  return std::tie(a.info.address, a.answer.mac) < std::tie(b.info.address, b.answer.mac);
}

using ByMac = std::map<Mac, const Appliance *>;

ByMac Index(const std::vector<Appliance> &appliances) {
  ByMac index;
  for (const Appliance &appliance : appliances)
    index.emplace(appliance.answer.mac, &appliance);
  return index;
}

const Appliance *Find(const ByMac &index, const Mac &mac) {
  const auto found = index.find(mac);
  return found == index.end() ? nullptr : found->second;
}

Change ChangeSince(const Appliance *before, const Appliance &now) {
  if (before == nullptr || before->change == Change::GONE) return Change::NEW;
  const bool same = before->info.address == now.info.address &&
                    FieldText(before->info.host_name) == FieldText(now.info.host_name);
  return same ? Change::NONE : Change::MOVED;
}

}  // namespace

std::vector<Appliance> AppliancesOf(const std::vector<Answer> &answers) {
  std::vector<Appliance> appliances;
  appliances.reserve(answers.size());
  for (const Answer &answer : answers)
    appliances.push_back({answer, ReadDiscoverInfo(answer.body)});
  std::sort(appliances.begin(), appliances.end(), ComesBefore);
  return appliances;
}

Outcome Discover(const Scope &scope, std::vector<Appliance> &appliances) {
  std::vector<Answer> answers;
  Outcome outcome = Ask(scope, MakeDiscoverRequest(), answers);
  appliances = AppliancesOf(answers);
  return outcome;
}

std::vector<Appliance> Compare(const std::vector<Appliance> &before, std::vector<Appliance> now,
                               int max_silent) {
  std::vector<Appliance> silent;
  const ByMac answered = Index(now);
  for (const Appliance &appliance : before) {
    if (appliance.change == Change::GONE || Find(answered, appliance.answer.mac) != nullptr)
      continue;
    silent.push_back(appliance);
    silent.back().silent++;
    silent.back().change = silent.back().silent > max_silent ? Change::GONE : Change::NONE;
  }
  const ByMac known = Index(before);
  for (Appliance &appliance : now)
    appliance.change = ChangeSince(Find(known, appliance.answer.mac), appliance);
  now.insert(now.end(), silent.begin(), silent.end());
  std::sort(now.begin(), now.end(), ComesBefore);
  return now;
}

}  // namespace acp
