// The object type system: one slot of instance data per level of the type
// chain, level 0 being the root type.
#include <cstdlib>

#include "tarvex_error.h"
#include "tarvex_object.h"

struct tarvex_object_s {
    const tarvex_object_type_t *type;
    int levels;
    void *data[]; // data[levels - 1] belongs to `type` itself
};

namespace {

int type_depth(const tarvex_object_type_t *type)
{
    int depth = 0;
    for (; type != nullptr; type = type->parent_type)
        depth++;
    return depth;
}

// Level index of `type` in the object's chain, or -1.
int level_of(const tarvex_object_t *object, const tarvex_object_type_t *type)
{
    int level = object->levels - 1;
    for (const tarvex_object_type_t *t = object->type; t != nullptr;
         t = t->parent_type, level--) {
        if (t == type)
            return level;
    }
    return -1;
}

tarvex_object_t *allocate(const tarvex_object_type_t *type)
{
    int levels = type_depth(type);
    auto *object = static_cast<tarvex_object_t *>(
        std::calloc(1, sizeof(tarvex_object_t) + sizeof(void *) * levels));
    if (object == nullptr)
        return nullptr;
    object->type = type;
    object->levels = levels;
    return object;
}

} // namespace

extern "C" {

tarvex_object_t *tarvex_object_construct(const tarvex_object_type_t *type)
{
    if (type == nullptr)
        return nullptr;
    return allocate(type);
}

void tarvex_object_free(tarvex_object_t *object)
{
    if (object == nullptr)
        return;
    // Most derived level first: a derived destructor may still rely on the
    // data of its ancestors being intact.
    int level = object->levels - 1;
    for (const tarvex_object_type_t *t = object->type; t != nullptr;
         t = t->parent_type, level--) {
        if (t->destructor != nullptr)
            t->destructor(object->data[level]);
        object->data[level] = nullptr;
    }
    std::free(object);
}

tarvex_object_t *tarvex_object_copy(const tarvex_object_t *object)
{
    if (object == nullptr)
        return nullptr;
    tarvex_object_t *copy = allocate(object->type);
    if (copy == nullptr)
        return nullptr;
    int level = object->levels - 1;
    for (const tarvex_object_type_t *t = object->type; t != nullptr;
         t = t->parent_type, level--) {
        void *src = object->data[level];
        if (src == nullptr || t->copy_func == nullptr)
            continue;
        void *dst = nullptr;
        t->copy_func(src, &dst);
        if (dst == nullptr) { // the level's copy failed
            tarvex_object_free(copy);
            return nullptr;
        }
        copy->data[level] = dst;
    }
    return copy;
}

const tarvex_object_type_t *tarvex_object_get_type(const tarvex_object_t *object)
{
    return object == nullptr ? nullptr : object->type;
}

bool tarvex_object_type_match(const tarvex_object_type_t *type,
                              const tarvex_object_type_t *ancestor)
{
    if (ancestor == nullptr)
        return false;
    for (; type != nullptr; type = type->parent_type) {
        if (type == ancestor)
            return true;
    }
    return false;
}

void tarvex_object_set_local_instance_data(tarvex_object_t *object, void *data)
{
    if (object == nullptr)
        return;
    object->data[object->levels - 1] = data;
}

void *tarvex_object_get_local_instance_data(const tarvex_object_t *object)
{
    if (object == nullptr)
        return nullptr;
    return object->data[object->levels - 1];
}

int tarvex_object_set_instance_data(tarvex_object_t *object,
                                    const tarvex_object_type_t *type, void *data)
{
    if (object == nullptr)
        return -1;
    int level = level_of(object, type);
    if (level < 0)
        return -1;
    object->data[level] = data;
    return 0;
}

void *tarvex_object_get_instance_data(const tarvex_object_t *object,
                                      const tarvex_object_type_t *type)
{
    if (object == nullptr)
        return nullptr;
    int level = level_of(object, type);
    return level < 0 ? nullptr : object->data[level];
}

const void *tarvex_object_get_class_data(const tarvex_object_t *object)
{
    return object == nullptr ? nullptr : object->type->class_data;
}

char *tarvex_object_printable_to_string(const tarvex_object_t *object)
{
    // Only error types promise a tarvex_error_class_t as class data; any
    // other type's class data is opaque.
    if (!tarvex_error_is_error(object))
        return nullptr;
    for (const tarvex_object_type_t *t = object->type; t != nullptr; t = t->parent_type) {
        auto *cls = static_cast<const tarvex_error_class_t *>(t->class_data);
        if (cls != nullptr && cls->printable != nullptr)
            return cls->printable(const_cast<tarvex_object_t *>(object));
    }
    return nullptr;
}

} // extern "C"
