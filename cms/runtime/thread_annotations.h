// Names for clang's thread-safety analysis (-Wthread-safety); they are empty for other compilers.
#pragma once

#if defined(__clang__)
#define CMS_ANNOTATE(x) __attribute__((x))
#else
#define CMS_ANNOTATE(x)
#endif

#define CMS_CAPABILITY(x) CMS_ANNOTATE(capability(x))
#define CMS_SCOPED_CAPABILITY CMS_ANNOTATE(scoped_lockable)
#define CMS_GUARDED_BY(x) CMS_ANNOTATE(guarded_by(x))
#define CMS_PT_GUARDED_BY(x) CMS_ANNOTATE(pt_guarded_by(x))  // what it points to
#define CMS_REQUIRES(...) CMS_ANNOTATE(requires_capability(__VA_ARGS__))
#define CMS_ACQUIRE(...) CMS_ANNOTATE(acquire_capability(__VA_ARGS__))
#define CMS_TRY_ACQUIRE(...) CMS_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define CMS_RELEASE(...) CMS_ANNOTATE(release_capability(__VA_ARGS__))
#define CMS_EXCLUDES(...) CMS_ANNOTATE(locks_excluded(__VA_ARGS__))
#define CMS_NO_THREAD_SAFETY_ANALYSIS CMS_ANNOTATE(no_thread_safety_analysis)
