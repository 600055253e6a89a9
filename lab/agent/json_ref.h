/* A counted reference to a json-c object: behaviours hold pieces of the scenario beyond the call that read
 * them. */
#ifndef LAB_JSON_REF_H
#define LAB_JSON_REF_H

#include <utility>

#include <json-c/json.h>

class json_ref
{
  public:
    json_ref() = default;
    json_ref(const json_ref &other) : object(json_object_get(other.object))
    {
    }
    json_ref(json_ref &&other) noexcept : object(std::exchange(other.object, nullptr))
    {
    }
    json_ref &operator=(json_ref other) noexcept
    {
        std::swap(object, other.object);
        return *this;
    }
    ~json_ref()
    {
        json_object_put(object);
    }
    /* Takes over the caller's own reference. */
    static json_ref own(json_object *owned)
    {
        json_ref made;
        made.object = owned;
        return made;
    }
    /* Adds a reference to an object that somebody else holds too. */
    static json_ref share(json_object *held)
    {
        return own(json_object_get(held));
    }
    json_object *get() const
    {
        return object;
    }
    json_object *release()
    {
        return std::exchange(object, nullptr);
    }

  private:
    json_object *object = nullptr;
};

/* The member of that name, or null, also when `from` is no object. */
inline json_object *json_member(json_object *from, const char *name)
{
    json_object *found = nullptr;
    if (json_object_is_type(from, json_type_object))
        json_object_object_get_ex(from, name, &found);
    return found;
}

#endif
