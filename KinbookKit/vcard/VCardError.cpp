#include "KinbookKit/vcard/VCardError.h"

namespace kinbook {

std::string_view describe(VCardError error) {
    switch (error) {
    case VCardError::empty:
        return "the file is empty";
    case VCardError::notAVCard:
        return "the file holds no vCard";
    }
    return "the file holds no vCard";
}

} // namespace kinbook
