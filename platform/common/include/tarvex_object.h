/*
 * A small object type system.  A type names its parent type, a copy
 * function and a destructor for the instance data of its own level, and
 * class data shared by all its objects.  An object carries one slot of
 * instance data per level of its type chain (the root type is level 0), so
 * a derived type keeps its own data while its ancestors keep theirs.
 */
#ifndef TARVEX_OBJECT_H
#define TARVEX_OBJECT_H

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tarvex_object_s tarvex_object_t;

/* Copies one level's instance data: *dst becomes the copy (or NULL). */
typedef void (*tarvex_object_copy_func_t)(void *src, void **dst);
/* Releases one level's instance data; called with NULL too. */
typedef void (*tarvex_object_destructor_func_t)(void *data);

typedef struct tarvex_object_type_s {
    const struct tarvex_object_type_s *parent_type;
    tarvex_object_copy_func_t copy_func;
    tarvex_object_destructor_func_t destructor;
    const void *class_data;
} tarvex_object_type_t;

/* New object of `type` with every level's instance data NULL; NULL when
 * memory runs out. */
TARVEX_API tarvex_object_t *tarvex_object_construct(const tarvex_object_type_t *type);

/* Calls each level's destructor (most derived first) and frees the object.
 * Accepts NULL. */
TARVEX_API void tarvex_object_free(tarvex_object_t *object);

/* Deep copy: every level's data through that level's copy function (a level
 * without one, or with NULL data, copies as NULL).  NULL on failure. */
TARVEX_API tarvex_object_t *tarvex_object_copy(const tarvex_object_t *object);

TARVEX_API const tarvex_object_type_t *tarvex_object_get_type(const tarvex_object_t *object);

/* True when `type` is `ancestor` or descends from it. */
TARVEX_API bool tarvex_object_type_match(const tarvex_object_type_t *type,
                                         const tarvex_object_type_t *ancestor);

/* Instance data of the object's own (most derived) level. */
TARVEX_API void tarvex_object_set_local_instance_data(tarvex_object_t *object, void *data);
TARVEX_API void *tarvex_object_get_local_instance_data(const tarvex_object_t *object);

/* Instance data of the level of `type`, which must be the object's type or
 * one of its ancestors.  set returns non-zero when `type` is not in the
 * object's chain; get returns NULL then.  set does not free older data. */
TARVEX_API int tarvex_object_set_instance_data(tarvex_object_t *object,
                                               const tarvex_object_type_t *type, void *data);
TARVEX_API void *tarvex_object_get_instance_data(const tarvex_object_t *object,
                                                 const tarvex_object_type_t *type);

/* Class data of the object's own type. */
TARVEX_API const void *tarvex_object_get_class_data(const tarvex_object_t *object);

/* Printable form of an error object (see tarvex_error.h): the printable
 * function of the nearest type in the chain that has one.  Allocated;
 * NULL for objects without one. */
TARVEX_API char *tarvex_object_printable_to_string(const tarvex_object_t *object);

#ifdef __cplusplus
}
#endif

#endif
