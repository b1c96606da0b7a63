// A doubly linked list whose links live inside the caller's records.
#include "cutils/dlist/vexa_cutils_dlist.h"

namespace {

// The pointer that leads to what follows `item`, or to the front of the list if `item` is null; and its
// mirror image.
cutilsp_dlist_item*& link_after(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    return item != nullptr ? item->next : list->first;
}

cutilsp_dlist_item*& link_before(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    return item != nullptr ? item->previous : list->last;
}

void insert_between(cutilsp_dlist* list, cutilsp_dlist_item* previous, cutilsp_dlist_item* item,
                    cutilsp_dlist_item* next) {
    *item = {next, previous};
    link_after(list, previous) = item;
    link_before(list, next) = item;
}

}  // namespace

void cutilsp_dlist_push_back(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    insert_between(list, list->last, item, nullptr);
}

void cutilsp_dlist_push_front(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    insert_between(list, nullptr, item, list->first);
}

void cutilsp_dlist_remove_item(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    link_after(list, item->previous) = item->next;
    link_before(list, item->next) = item->previous;
    *item = {nullptr, nullptr};
}

cutilsp_dlist_item* cutilsp_dlist_remove_and_return_next(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    cutilsp_dlist_item* const next = item->next;
    cutilsp_dlist_remove_item(list, item);
    return next;
}

cutilsp_dlist_item* cutilsp_dlist_remove_and_return_prev(cutilsp_dlist* list, cutilsp_dlist_item* item) {
    cutilsp_dlist_item* const previous = item->previous;
    cutilsp_dlist_remove_item(list, item);
    return previous;
}
