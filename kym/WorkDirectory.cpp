#include "kym/WorkDirectory.h"

#include "base/Archiver.h"
#include "base/Coder.h"
#include "base/Unarchiver.h"

namespace Kym {

static Base::Coder<WorkDirectory> workDirectoryCoder("WorkDirectory");
static Base::CollectionCoder<std::vector<WorkDirectory>> workDirectoryListCoder("WorkDirectoryList");

void WorkDirectory::encode(Base::Archiver& archiver) {
    archiver.encode("Name", name);
    archiver.encode("Path", path);
}

void WorkDirectory::decode(Base::Unarchiver& unarchiver) {
    unarchiver.decode("Name", name);
    unarchiver.decode("Path", path);
}

WorkDirectoryListSource::WorkDirectoryListSource(std::vector<WorkDirectory>* list)
    : RecordListSource<WorkDirectory>(list) {}

boost::any WorkDirectoryListSource::valueForListColumnRow(const std::string& column, int row) const {
    if (!mList) return boost::any();
    const WorkDirectory& directory = record(row);
    return column == "Name" ? directory.name : directory.path;
}

bool WorkDirectoryListSource::setValueForListColumnRow(const std::string& column, int row, const boost::any& value) {
    if (!mList) return false;
    const std::string& text = boost::any_cast<const std::string&>(value);
    WorkDirectory& directory = record(row);
    (column == "Name" ? directory.name : directory.path) = text;
    mEdited = true;
    return true;
}

} // namespace Kym
