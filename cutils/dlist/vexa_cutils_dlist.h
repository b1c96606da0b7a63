// A doubly linked list whose links live inside the caller's records.
//
// Nothing here allocates, locks or looks whether an item really is in the list: an item that isn't, or that
// is in two lists, spoils the lists that it touches. The user holds a lock of its own where threads share a
// list. A list of zero bytes is an empty list.
#pragma once

// The first member of the caller's record, so that a pointer to the item is a pointer to the record.
struct cutilsp_dlist_item {
    cutilsp_dlist_item* next;
    cutilsp_dlist_item* previous;
};

struct cutilsp_dlist {
    cutilsp_dlist_item* first;
    cutilsp_dlist_item* last;
};

extern "C" {

// Puts `item` at the end, or at the front, of `list`. Its old links are not looked at.
void cutilsp_dlist_push_back(cutilsp_dlist* list, cutilsp_dlist_item* item);
void cutilsp_dlist_push_front(cutilsp_dlist* list, cutilsp_dlist_item* item);

// Takes `item` out of `list` and clears its links. The record stays the caller's.
void cutilsp_dlist_remove_item(cutilsp_dlist* list, cutilsp_dlist_item* item);

// The same, for a walk that removes as it goes: the result is the item that stood behind, or before, the
// removed one, or null if there was none.
cutilsp_dlist_item* cutilsp_dlist_remove_and_return_next(cutilsp_dlist* list, cutilsp_dlist_item* item);
cutilsp_dlist_item* cutilsp_dlist_remove_and_return_prev(cutilsp_dlist* list, cutilsp_dlist_item* item);

}  // extern "C"
