#include "fwk/framework/GenericIf.h"

#include <cmath>

#include "fwk/framework/GenericAccess.h"

namespace Kel {

unsigned GenericIf::attributeId(std::string_view name) const {
  const AttributeRecord* a = type().attribute(name);
  if (!a) throw RangeException(type().name + " has no attribute '" + std::string(name) + "'");
  return a->id;
}

const AttributeRecord& GenericIf::attribute(unsigned id) const {
  const TypeRecord& t = type();
  if (id >= t.attributes.size()) {
    throw RangeException(t.name + " has no attribute id " + std::to_string(id));
  }
  return t.attributes[id];
}

double secondsFromText(const char* attr, std::string_view text) {
  const double v = strepToValue<double>(text);
  if (!std::isfinite(v) || v < 0) {
    throw RangeException(std::string(attr) + ": " + std::string(text) +
                         " not allowed (seconds must be finite and not negative)");
  }
  return v;
}

}  // namespace Kel
