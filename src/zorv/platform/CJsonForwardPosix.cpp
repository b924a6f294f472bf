// libzorv.so re-exports the whole cJSON API under cJSON's own names, so an
// agent that loads only this library can use the same JSON functions.
//
// Each export forwards to the cJSON shared library this library was linked
// against. Both define the same names, so the real functions cannot be reached
// by name from here: they are looked up in that library's own handle once,
// on first use of each. (The Windows build links cJSON statically instead and
// exports it through the module-definition file.)
#include <dlfcn.h>

#include <type_traits>

#define CJSON_API_VISIBILITY  // make the definitions below default-visible
#include <cjson/cJSON.h>

namespace {

void* CJsonLibrary() {
    static void* const handle = [] {
        // Already loaded as our dependency; RTLD_NOLOAD only takes a reference.
        void* h = ::dlopen(ZORV_CJSON_SONAME, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
        return h != nullptr ? h : ::dlopen(ZORV_CJSON_SONAME, RTLD_NOW | RTLD_LOCAL);
    }();
    return handle;
}

template <typename Fn>
Fn Resolve(const char* name) {
    void* library = CJsonLibrary();
    return library != nullptr ? reinterpret_cast<Fn>(::dlsym(library, name)) : nullptr;
}

// What a forwarder answers if the real function cannot be found: nothing
// rather than a jump through a null pointer.
template <typename T>
T Nothing() {
    if constexpr (!std::is_void_v<T>) return T{};
}

}  // namespace

#define ZORV_FORWARD(ret, name, params, args)                        \
    extern "C" CJSON_PUBLIC(ret) name params {                       \
        static const auto real = Resolve<decltype(&name)>(#name);    \
        if (real == nullptr) return Nothing<ret>();                  \
        return real args;                                            \
    }

ZORV_FORWARD(const char*, cJSON_Version, (void), ())
ZORV_FORWARD(void, cJSON_InitHooks, (cJSON_Hooks* hooks), (hooks))
ZORV_FORWARD(cJSON *, cJSON_Parse, (const char *value), (value))
ZORV_FORWARD(cJSON *, cJSON_ParseWithLength, (const char *value, size_t buffer_length), (value, buffer_length))
ZORV_FORWARD(cJSON *, cJSON_ParseWithOpts, (const char *value, const char **return_parse_end, cJSON_bool require_null_terminated), (value, return_parse_end, require_null_terminated))
ZORV_FORWARD(cJSON *, cJSON_ParseWithLengthOpts, (const char *value, size_t buffer_length, const char **return_parse_end, cJSON_bool require_null_terminated), (value, buffer_length, return_parse_end, require_null_terminated))
ZORV_FORWARD(char *, cJSON_Print, (const cJSON *item), (item))
ZORV_FORWARD(char *, cJSON_PrintUnformatted, (const cJSON *item), (item))
ZORV_FORWARD(char *, cJSON_PrintBuffered, (const cJSON *item, int prebuffer, cJSON_bool fmt), (item, prebuffer, fmt))
ZORV_FORWARD(cJSON_bool, cJSON_PrintPreallocated, (cJSON *item, char *buffer, const int length, const cJSON_bool format), (item, buffer, length, format))
ZORV_FORWARD(void, cJSON_Delete, (cJSON *item), (item))
ZORV_FORWARD(int, cJSON_GetArraySize, (const cJSON *array), (array))
ZORV_FORWARD(cJSON *, cJSON_GetArrayItem, (const cJSON *array, int index), (array, index))
ZORV_FORWARD(cJSON *, cJSON_GetObjectItem, (const cJSON * const object, const char * const string), (object, string))
ZORV_FORWARD(cJSON *, cJSON_GetObjectItemCaseSensitive, (const cJSON * const object, const char * const string), (object, string))
ZORV_FORWARD(cJSON_bool, cJSON_HasObjectItem, (const cJSON *object, const char *string), (object, string))
ZORV_FORWARD(const char *, cJSON_GetErrorPtr, (void), ())
ZORV_FORWARD(char *, cJSON_GetStringValue, (const cJSON * const item), (item))
ZORV_FORWARD(double, cJSON_GetNumberValue, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsInvalid, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsFalse, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsTrue, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsBool, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsNull, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsNumber, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsString, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsArray, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsObject, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON_bool, cJSON_IsRaw, (const cJSON * const item), (item))
ZORV_FORWARD(cJSON *, cJSON_CreateNull, (void), ())
ZORV_FORWARD(cJSON *, cJSON_CreateTrue, (void), ())
ZORV_FORWARD(cJSON *, cJSON_CreateFalse, (void), ())
ZORV_FORWARD(cJSON *, cJSON_CreateBool, (cJSON_bool boolean), (boolean))
ZORV_FORWARD(cJSON *, cJSON_CreateNumber, (double num), (num))
ZORV_FORWARD(cJSON *, cJSON_CreateString, (const char *string), (string))
ZORV_FORWARD(cJSON *, cJSON_CreateRaw, (const char *raw), (raw))
ZORV_FORWARD(cJSON *, cJSON_CreateArray, (void), ())
ZORV_FORWARD(cJSON *, cJSON_CreateObject, (void), ())
ZORV_FORWARD(cJSON *, cJSON_CreateStringReference, (const char *string), (string))
ZORV_FORWARD(cJSON *, cJSON_CreateObjectReference, (const cJSON *child), (child))
ZORV_FORWARD(cJSON *, cJSON_CreateArrayReference, (const cJSON *child), (child))
ZORV_FORWARD(cJSON *, cJSON_CreateIntArray, (const int *numbers, int count), (numbers, count))
ZORV_FORWARD(cJSON *, cJSON_CreateFloatArray, (const float *numbers, int count), (numbers, count))
ZORV_FORWARD(cJSON *, cJSON_CreateDoubleArray, (const double *numbers, int count), (numbers, count))
ZORV_FORWARD(cJSON *, cJSON_CreateStringArray, (const char *const *strings, int count), (strings, count))
ZORV_FORWARD(cJSON_bool, cJSON_AddItemToArray, (cJSON *array, cJSON *item), (array, item))
ZORV_FORWARD(cJSON_bool, cJSON_AddItemToObject, (cJSON *object, const char *string, cJSON *item), (object, string, item))
ZORV_FORWARD(cJSON_bool, cJSON_AddItemToObjectCS, (cJSON *object, const char *string, cJSON *item), (object, string, item))
ZORV_FORWARD(cJSON_bool, cJSON_AddItemReferenceToArray, (cJSON *array, cJSON *item), (array, item))
ZORV_FORWARD(cJSON_bool, cJSON_AddItemReferenceToObject, (cJSON *object, const char *string, cJSON *item), (object, string, item))
ZORV_FORWARD(cJSON *, cJSON_DetachItemViaPointer, (cJSON *parent, cJSON * const item), (parent, item))
ZORV_FORWARD(cJSON *, cJSON_DetachItemFromArray, (cJSON *array, int which), (array, which))
ZORV_FORWARD(void, cJSON_DeleteItemFromArray, (cJSON *array, int which), (array, which))
ZORV_FORWARD(cJSON *, cJSON_DetachItemFromObject, (cJSON *object, const char *string), (object, string))
ZORV_FORWARD(cJSON *, cJSON_DetachItemFromObjectCaseSensitive, (cJSON *object, const char *string), (object, string))
ZORV_FORWARD(void, cJSON_DeleteItemFromObject, (cJSON *object, const char *string), (object, string))
ZORV_FORWARD(void, cJSON_DeleteItemFromObjectCaseSensitive, (cJSON *object, const char *string), (object, string))
ZORV_FORWARD(cJSON_bool, cJSON_InsertItemInArray, (cJSON *array, int which, cJSON *newitem), (array, which, newitem))
ZORV_FORWARD(cJSON_bool, cJSON_ReplaceItemViaPointer, (cJSON * const parent, cJSON * const item, cJSON * replacement), (parent, item, replacement))
ZORV_FORWARD(cJSON_bool, cJSON_ReplaceItemInArray, (cJSON *array, int which, cJSON *newitem), (array, which, newitem))
ZORV_FORWARD(cJSON_bool, cJSON_ReplaceItemInObject, (cJSON *object,const char *string,cJSON *newitem), (object, string, newitem))
ZORV_FORWARD(cJSON_bool, cJSON_ReplaceItemInObjectCaseSensitive, (cJSON *object,const char *string,cJSON *newitem), (object, string, newitem))
ZORV_FORWARD(cJSON *, cJSON_Duplicate, (const cJSON *item, cJSON_bool recurse), (item, recurse))
ZORV_FORWARD(cJSON_bool, cJSON_Compare, (const cJSON * const a, const cJSON * const b, const cJSON_bool case_sensitive), (a, b, case_sensitive))
ZORV_FORWARD(void, cJSON_Minify, (char *json), (json))
ZORV_FORWARD(cJSON*, cJSON_AddNullToObject, (cJSON * const object, const char * const name), (object, name))
ZORV_FORWARD(cJSON*, cJSON_AddTrueToObject, (cJSON * const object, const char * const name), (object, name))
ZORV_FORWARD(cJSON*, cJSON_AddFalseToObject, (cJSON * const object, const char * const name), (object, name))
ZORV_FORWARD(cJSON*, cJSON_AddBoolToObject, (cJSON * const object, const char * const name, const cJSON_bool boolean), (object, name, boolean))
ZORV_FORWARD(cJSON*, cJSON_AddNumberToObject, (cJSON * const object, const char * const name, const double number), (object, name, number))
ZORV_FORWARD(cJSON*, cJSON_AddStringToObject, (cJSON * const object, const char * const name, const char * const string), (object, name, string))
ZORV_FORWARD(cJSON*, cJSON_AddRawToObject, (cJSON * const object, const char * const name, const char * const raw), (object, name, raw))
ZORV_FORWARD(cJSON*, cJSON_AddObjectToObject, (cJSON * const object, const char * const name), (object, name))
ZORV_FORWARD(cJSON*, cJSON_AddArrayToObject, (cJSON * const object, const char * const name), (object, name))
ZORV_FORWARD(double, cJSON_SetNumberHelper, (cJSON *object, double number), (object, number))
ZORV_FORWARD(char*, cJSON_SetValuestring, (cJSON *object, const char *valuestring), (object, valuestring))
ZORV_FORWARD(void *, cJSON_malloc, (size_t size), (size))
ZORV_FORWARD(void, cJSON_free, (void *object), (object))
