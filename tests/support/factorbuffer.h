// Writes factor-data buffers, the flat form a user's MFA data is built from,
// and records where each piece landed so that tests can patch it.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mfatest {

constexpr uint32_t kTagsSection = 1;
constexpr uint32_t kDateSection = 2;

// Overwrites an integer of the buffer in the machine's byte order.
template <typename T> void put(std::string &buffer, size_t position, T value) {
  if (position + sizeof(T) > buffer.size())
    throw std::out_of_range("patch beyond the buffer");
  memcpy(buffer.data() + position, &value, sizeof(T));
}

struct FactorBufferLayout {
  uint32_t numFactors = 0;
  uint32_t numPolicies = 0;
  uint32_t policyOffset = 0;
  // Buffer positions of each factor's entry, of each section's table entry
  // and each tag entry per factor (tags in list order), of each policy entry.
  std::vector<uint32_t> factorEntry;
  std::vector<std::vector<uint32_t>> sectionEntry;
  std::vector<std::vector<uint32_t>> tagEntry;
  std::vector<uint32_t> policyEntry;
};

class FactorBuffer {
public:
  // Starts a new factor; the sections that follow belong to it.
  FactorBuffer &factor(std::string_view name) {
    factors_.push_back({std::string(name), {}});
    return *this;
  }
  FactorBuffer &tags(const std::vector<std::pair<std::string, std::string>> &tags) {
    Section section{kTagsSection, {}, {}};
    append(section.bytes, tags.size());
    for (const auto &[name, value] : tags) {
      section.tagStarts.push_back(at(section.bytes));
      // The entry length leaves out the length field itself.
      for (size_t field : {6 + name.size() + value.size(), size_t{0}, name.size()})
        append(section.bytes, field);
      section.bytes += name;
      append(section.bytes, value.size());
      section.bytes += value;
    }
    factors_.back().second.push_back(std::move(section));
    return *this;
  }
  FactorBuffer &date(std::string_view text) { return section(kDateSection, text); }
  // A section of any type holding bytes as they stand.
  FactorBuffer &section(uint32_t type, std::string_view bytes) {
    factors_.back().second.push_back({type, std::string(bytes), {}});
    return *this;
  }
  // An empty name writes a policy entry with name length 0.
  FactorBuffer &policy(std::string_view name) {
    policies_.emplace_back(name);
    return *this;
  }

  // Factor entries first, then per factor its name, section table and
  // section data, then the policy entries and their names.
  std::string build(FactorBufferLayout *layout = nullptr) const {
    FactorBufferLayout l;
    std::string buffer(16 * factors_.size(), '\0');
    for (const auto &[name, sections] : factors_) {
      const uint32_t entry = 16 * static_cast<uint32_t>(l.factorEntry.size());
      l.factorEntry.push_back(entry);
      put(buffer, entry, at(name));
      put(buffer, entry + 4, at(buffer));
      put(buffer, entry + 8, static_cast<uint32_t>(sections.size()));
      buffer += name;
      const uint32_t table = at(buffer);
      put(buffer, entry + 12, table);
      buffer.append(12 * sections.size(), '\0');
      l.sectionEntry.emplace_back();
      l.tagEntry.emplace_back();
      for (const Section &section : sections) {
        const uint32_t row = table + 12 * static_cast<uint32_t>(l.sectionEntry.back().size());
        l.sectionEntry.back().push_back(row);
        for (uint32_t start : section.tagStarts)
          l.tagEntry.back().push_back(at(buffer) + start);
        put(buffer, row, section.type);
        put(buffer, row + 4, at(section.bytes));
        put(buffer, row + 8, at(buffer));
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

private:
  struct Section {
    uint32_t type;
    std::string bytes;
    std::vector<uint32_t> tagStarts; // within bytes
  };
  // Counts and lengths within a tag section are 16 bits wide.
  static void append(std::string &bytes, size_t value) {
    const auto field = static_cast<uint16_t>(value);
    bytes.append(reinterpret_cast<const char *>(&field), sizeof field);
  }
  static uint32_t at(const std::string &buffer) { return static_cast<uint32_t>(buffer.size()); }

  std::vector<std::pair<std::string, std::vector<Section>>> factors_;
  std::vector<std::string> policies_;
};

} // namespace mfatest
