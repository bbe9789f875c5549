#ifndef PLATFORM_WINDOWS_VIEWS_H
#define PLATFORM_WINDOWS_VIEWS_H

// Which of the process's maps are views of mappings made here. A view can do without its note; the
// reports then take it for another's.

/// Notes a new view, if there is memory for that.
void NoteView(const void* view);

/// Forgets a view that has ended.
void ForgetView(const void* view);

bool IsNotedView(const void* view);

/// How many are noted.
unsigned long CountNotedViews();

#endif
