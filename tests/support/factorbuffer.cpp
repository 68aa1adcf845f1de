#include "support/factorbuffer.h"

#include <cstring>
#include <stdexcept>

namespace mfatest {

namespace {

template <typename T> void append(std::string &buffer, T value) {
  buffer.append(reinterpret_cast<const char *>(&value), sizeof(T));
}

template <typename T> void patch(std::string &buffer, size_t position, T value) {
  if (position + sizeof(T) > buffer.size())
    throw std::out_of_range("patch beyond the buffer");
  memcpy(buffer.data() + position, &value, sizeof(T));
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
  factors_.back().sections.push_back(std::move(section));
  return *this;
}

FactorBuffer &FactorBuffer::date(std::string_view text) {
  return section(kDateSection, text);
}

FactorBuffer &FactorBuffer::section(uint32_t type, std::string_view bytes) {
  factors_.back().sections.push_back({type, std::string(bytes), {}});
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
  for (size_t f = 0; f < factors_.size(); ++f) {
    const Factor &factor = factors_[f];
    l.factorEntry.push_back(static_cast<uint32_t>(16 * f));
    const uint32_t nameOffset = at(buffer);
    buffer += factor.name;
    const uint32_t tableOffset = at(buffer);
    buffer.append(12 * factor.sections.size(), '\0');
    l.sectionEntry.emplace_back();
    l.sectionData.emplace_back();
    l.tagEntry.emplace_back();
    for (size_t s = 0; s < factor.sections.size(); ++s) {
      const Section &section = factor.sections[s];
      const uint32_t entry = static_cast<uint32_t>(tableOffset + 12 * s);
      const uint32_t data = at(buffer);
      patch<uint32_t>(buffer, entry, section.type);
      patch<uint32_t>(buffer, entry + 4, at(section.bytes));
      patch<uint32_t>(buffer, entry + 8, data);
      buffer += section.bytes;
      l.sectionEntry.back().push_back(entry);
      l.sectionData.back().push_back(data);
      for (uint32_t start : section.tagStarts)
        l.tagEntry.back().push_back(data + start);
    }
    patch<uint32_t>(buffer, 16 * f, static_cast<uint32_t>(factor.name.size()));
    patch<uint32_t>(buffer, 16 * f + 4, nameOffset);
    patch<uint32_t>(buffer, 16 * f + 8, static_cast<uint32_t>(factor.sections.size()));
    patch<uint32_t>(buffer, 16 * f + 12, tableOffset);
  }
  l.policyOffset = at(buffer);
  buffer.append(16 * policies_.size(), '\0');
  for (size_t p = 0; p < policies_.size(); ++p) {
    const uint32_t entry = static_cast<uint32_t>(l.policyOffset + 16 * p);
    patch<uint32_t>(buffer, entry, static_cast<uint32_t>(policies_[p].size()));
    patch<uint32_t>(buffer, entry + 4, at(buffer));
    buffer += policies_[p];
    l.policyEntry.push_back(entry);
  }
  l.numFactors = static_cast<uint32_t>(factors_.size());
  l.numPolicies = static_cast<uint32_t>(policies_.size());
  if (layout)
    *layout = std::move(l);
  return buffer;
}

void put32(std::string &buffer, size_t position, uint32_t value) {
  patch(buffer, position, value);
}

void put16(std::string &buffer, size_t position, uint16_t value) {
  patch(buffer, position, value);
}

} // namespace mfatest
