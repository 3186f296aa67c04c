#pragma once

#include "KinbookKit/records/ContactDraft.h"

namespace kinbook {

// A draft is applied onto the card as it is when it is saved, which may not
// be the card it was read from: a sync run, an editor or a second Kinbook
// may have changed the card in between. Applying the whole draft would put
// back every entry as it was read, undoing their changes unseen.
//
// What `edited` changed from `base` (the draft as it was read), applied to
// `current` (the draft of the card as it is now): a field or an entry the
// user left alone takes its value now; one the user changed takes the
// user's; an entry the user removed goes; a new one is added. An entry
// removed meanwhile by someone else stays removed unless the user changed
// it. Entries keep the card's order now, with new ones last.
ContactDraft mergeDraft(const ContactDraft& base, const ContactDraft& edited, const ContactDraft& current);

} // namespace kinbook
