#include "base/DataSourceInterface.h"

namespace Base {

// A model that does not override these is read-only and single-selection.

bool DataSourceInterface::setValueForListColumnRow(const std::string&, int, const boost::any&) {
    return false;
}

bool DataSourceInterface::allowsMultipleSelection() const {
    return false;
}

void DataSourceInterface::insertRow(int) {}

void DataSourceInterface::deleteRows(const std::vector<int>&) {}

bool DataSourceInterface::valueIsValid(const std::string&, int) const {
    return true;
}

} // namespace Base
