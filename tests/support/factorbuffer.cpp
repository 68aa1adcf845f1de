#include "support/factorbuffer.h"

namespace mfatest {

namespace {

template <typename T> void append(std::string &buffer, T value) {
  buffer.append(reinterpret_cast<const char *>(&value), sizeof(T));
}

uint32_t at(const std::string &buffer) {
  return static_cast<uint32_t>(buffer.size());
}

} // namespace

FactorBuffer &FactorBuffer::factor(std::string_view name) {
  factors_.push_back({std::string(name), {}});
  return *this;
}

FactorBuffer &FactorBuffer::tags(const Tags &tags) {
  Section section{kTagsSection, {}, {}};
  append<uint16_t>(section.bytes, static_cast<uint16_t>(tags.size()));
  for (const auto &[name, value] : tags) {
    section.tagStarts.push_back(at(section.bytes));
    // The entry length leaves out the length field itself.
    append<uint16_t>(section.bytes, static_cast<uint16_t>(6 + name.size() + value.size()));
    append<uint16_t>(section.bytes, 0);
    append<uint16_t>(section.bytes, static_cast<uint16_t>(name.size()));
    section.bytes += name;
    append<uint16_t>(section.bytes, static_cast<uint16_t>(value.size()));
    section.bytes += value;
  }
  factors_.back().second.push_back(std::move(section));
  return *this;
}

FactorBuffer &FactorBuffer::section(uint32_t type, std::string_view bytes) {
  factors_.back().second.push_back({type, std::string(bytes), {}});
  return *this;
}

FactorBuffer &FactorBuffer::policy(std::string_view name) {
  policies_.emplace_back(name);
  return *this;
}

// Factor entries first, then per factor its name, section table and section
// data, then the policy entries and their names.
std::string FactorBuffer::build(FactorBufferLayout *layout) const {
  FactorBufferLayout l;
  std::string buffer(16 * factors_.size(), '\0');
  for (const auto &[name, sections] : factors_) {
    const uint32_t entry = 16 * static_cast<uint32_t>(l.factorEntry.size());
    l.factorEntry.push_back(entry);
    put(buffer, entry, at(name));
    put(buffer, entry + 4, at(buffer));
    put(buffer, entry + 8, static_cast<uint32_t>(sections.size()));
    buffer += name;
    put(buffer, entry + 12, at(buffer));
    const uint32_t table = at(buffer);
    buffer.append(12 * sections.size(), '\0');
    l.sectionEntry.emplace_back();
    l.tagEntry.emplace_back();
    for (const Section &section : sections) {
      const uint32_t sectionEntry =
          table + 12 * static_cast<uint32_t>(l.sectionEntry.back().size());
      l.sectionEntry.back().push_back(sectionEntry);
      for (uint32_t start : section.tagStarts)
        l.tagEntry.back().push_back(at(buffer) + start);
      put(buffer, sectionEntry, section.type);
      put(buffer, sectionEntry + 4, at(section.bytes));
      put(buffer, sectionEntry + 8, at(buffer));
      buffer += section.bytes;
    }
  }
  l.policyOffset = at(buffer);
  buffer.append(16 * policies_.size(), '\0');
  for (const std::string &name : policies_) {
    const uint32_t entry = l.policyOffset + 16 * static_cast<uint32_t>(l.policyEntry.size());
    l.policyEntry.push_back(entry);
    put(buffer, entry, at(name));
    put(buffer, entry + 4, at(buffer));
    buffer += name;
  }
  l.numFactors = static_cast<uint32_t>(factors_.size());
  l.numPolicies = static_cast<uint32_t>(policies_.size());
  if (layout)
    *layout = std::move(l);
  return buffer;
}

} // namespace mfatest
