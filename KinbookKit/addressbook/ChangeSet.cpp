#include "KinbookKit/addressbook/ChangeSet.h"

namespace kinbook {

void ChangeSet::markChanged(const std::string& cardID) {
    m_deletedIDs.erase(cardID);
    m_changedIDs.insert(cardID);
}

void ChangeSet::visitDelete(const std::string& cardID) {
    m_changedIDs.erase(cardID);
    m_deletedIDs.insert(cardID);
}

} // namespace kinbook
