// What expat calls while a document is read.
#include <algorithm>
#include <cstring>
#include <utility>

#include "xml/run.h"

namespace {

bool IsPredefined(std::string_view name) {
    return name == "lt" || name == "gt" || name == "amp" || name == "apos" || name == "quot";
}

// The names of the entities that a text refers to.
template <typename Use>
void ForReferences(std::string_view text, const Use& use) {
    for (size_t at = text.find('&'); at != text.npos; at = text.find('&', at + 1)) {
        const size_t end = text.find(';', at);
        if (end == text.npos) return;
        const std::string_view name = text.substr(at + 1, end - at - 1);
        if (!name.starts_with('#') && !IsPredefined(name)) use(name);
    }
}

// expat follows such entities by recursion, and a thread's stack may be small.
constexpr size_t kMostNested = 128;

}  // namespace

// A C function may not be left by an exception: the first one ends the parsing.
struct XmlEvents::Handlers {
    template <typename Work>
    static void Guarded(void* user, const Work& work) {
        auto& run = *static_cast<XmlRun*>(user);
        if (run.m_result != 0) return;
        try {
            work(run);
            return;
        } catch (const XmlRefusal& refusal) {
            (void)run.Refuse(refusal, run.Index(), false);
        } catch (const std::bad_alloc&) {
            OutOfMemory(run);
        } catch (const std::length_error&) {
            OutOfMemory(run);
        }
        (void)XML_StopParser(run.m_parser.get(), XML_FALSE);
    }
    static void OutOfMemory(XmlRun& run) {
        // Short enough not to be allocated.
        (void)run.Refuse({KEMD_XML_CAUSE_SYSTEM, "out of memory"}, 0, false);
    }

    // expat leaves a reference out of a value when the entity may be declared elsewhere.
    // `event`: a tag or a default, or the reference to the entity that it is in.
    static void CheckReferences(XmlRun& run, std::string_view event) {
        std::vector<std::string_view> texts{event};
        if (event.starts_with('%')) texts.swap(run.m_parameterEntities);
        while (!texts.empty()) {
            const std::string_view text = texts.back();
            texts.pop_back();
            ForReferences(text, [&](std::string_view name) {
                const auto found = run.m_entities.find(std::string(name));
                if (found == run.m_entities.end()) RefuseUnknown(name);
                // Once is enough.
                if (!found->second.empty()) texts.push_back(std::exchange(found->second, {}));
            });
        }
    }
    // Where it begins is all that expat has of it.
    static void CheckDefault(XmlRun& run) {
        size_t offset = 0;
        std::string_view event = run.Context(offset);
        event.remove_prefix(offset);
        if (!event.starts_with('%')) event = event.substr(0, event.find(event[0], 1));
        CheckReferences(run, event);
    }
    [[noreturn]] static void RefuseUnknown(std::string_view name) {
        throw XmlRefusal{KEMD_XML_CAUSE_ENTITY,
                         "the entity \"" + std::string(name) +
                             "\" is not declared in the document, and others are not read"};
    }

    static void StartWithAttributes(XmlRun& run, const XML_Char* name, const XML_Char** attributes,
                                    uint64_t index, uint32_t place) {
        const int specified = XML_GetSpecifiedAttributeCount(run.m_parser.get()) / 2;
        const int size = XML_GetCurrentByteCount(run.m_parser.get());
        size_t offset = 0;
        const std::string_view context = run.Context(offset);
        std::string_view tag = context.substr(offset, static_cast<size_t>(size));
        if (run.m_mayLeaveOut) CheckReferences(run, tag);
        // An element within an entity is where the reference is.
        if (!tag.starts_with('<')) tag.remove_suffix(tag.size());
        XmlTag walk(tag, index, run.m_places, context.data() + context.size(),
                    !run.m_attributeCounts.empty());
        run.m_builder.Start(name, attributes, place, &walk, static_cast<size_t>(specified));
    }

    static void Start(void* user, const XML_Char* name, const XML_Char** attributes) {
        Guarded(user, [&](XmlRun& run) {
            run.m_hasRoot = true;
            const uint64_t index = run.Index();
            const uint32_t place = run.m_places.At(index);
            run.Release(index);
            run.m_openTags.push_back(index);
            if (attributes[0] == nullptr) {
                run.m_builder.Start(name, attributes, place, nullptr, 0);
            } else {
                StartWithAttributes(run, name, attributes, index, place);
            }
            run.CheckExpansion();
        });
    }
    static void End(void* user, const XML_Char* /*name*/) {
        Guarded(user, [](XmlRun& run) {
            run.m_builder.End();
            run.m_openTags.pop_back();
        });
    }
    static void Text(void* user, const XML_Char* text, int size) {
        Guarded(user, [&](XmlRun& run) {
            const uint64_t index = run.Index();
            const uint32_t place = run.m_builder.BeginsText() ? run.m_places.At(index) : 0;
            run.m_builder.Text({text, static_cast<size_t>(size)}, place);
            run.Release(index);
            run.CheckExpansion();
        });
    }
    static void StartCdata(void* user) {
        Guarded(user, [](XmlRun& run) { run.m_builder.StartCdata(run.PlaceHere()); });
    }
    static void EndCdata(void* user) {
        Guarded(user, [](XmlRun& run) { run.m_builder.EndText(); });
    }
    // What is before the document type may look like it.
    static void Pass(XmlRun& run) {
        if (run.m_hasRoot) return;
        const int size = XML_GetCurrentByteCount(run.m_parser.get());
        run.m_documentType = run.Index() + static_cast<uint64_t>(size);
    }
    // Those of a document type are in its text.
    static void Comment(void* user, const XML_Char* text) {
        Guarded(user, [&](XmlRun& run) {
            if (run.m_isInType) return;
            Pass(run);
            run.m_builder.Other(KEMD_XML_COMMENT, {}, text, run.PlaceHere());
        });
    }
    static void Instruction(void* user, const XML_Char* target, const XML_Char* text) {
        Guarded(user, [&](XmlRun& run) {
            if (run.m_isInType) return;
            Pass(run);
            run.m_builder.Other(KEMD_XML_INSTRUCTION, target, text, run.PlaceHere());
        });
    }

    static void Declaration(void* user, const XML_Char* version, const XML_Char* /*encoding*/,
                            int standalone) {
        Guarded(user, [&](XmlRun& run) {
            if (version != nullptr) {
                const std::string_view number = version;
                const bool isGood = number.starts_with("1.") && number.size() > 2 &&
                                    number.find_first_not_of("0123456789", 2) == number.npos;
                if (!isGood) throw XmlRefusal{KEMD_XML_CAUSE_SYNTAX, "this is not XML 1.0"};
                run.m_document->facts.version = number;
            }
            run.m_document->facts.standalone = standalone;
        });
    }
    static void StartType(void* user, const XML_Char* /*name*/, const XML_Char* system,
                          const XML_Char* /*publicId*/, int /*hasSubset*/) {
        Guarded(user, [&](XmlRun& run) {
            run.m_isInType = true;
            run.m_mayLeaveOut = system != nullptr;
            run.m_documentType = run.m_toRoot.find("<!DOCTYPE", run.m_documentType);
        });
    }
    static void EndType(void* user) {
        Guarded(user, [](XmlRun& run) {
            run.m_isInType = false;
            run.m_document->facts.documentType =
                run.m_toRoot.substr(run.m_documentType, run.Index() + 1 - run.m_documentType);
        });
    }
    // NOLINTNEXTLINE(readability-function-size): expat calls it
    static void Entity(void* user, const XML_Char* name, int isParameter, const XML_Char* value,
                       int size, const XML_Char* /*base*/, const XML_Char* /*system*/,
                       const XML_Char* /*publicId*/, const XML_Char* /*notation*/) {
        if (value == nullptr) return;
        Guarded(user, [&](XmlRun& run) {
            const std::string_view text(value, static_cast<size_t>(size));
            bool refers = isParameter != 0 && text.find('%') != text.npos;
            ForReferences(text, [&refers](std::string_view /*name*/) { refers = true; });
            const uint64_t most = run.m_limits[KEMD_XML_LIMIT_EXPANSION];
            if (refers && ++run.m_nested > kMostNested && most != 0) {
                throw XmlRefusal{
                    KEMD_XML_CAUSE_LIMIT,
                    "more than " + std::to_string(kMostNested) + " entities refer to others",
                    KEMD_XML_LIMIT_EXPANSION};
            }
            // expat keeps the text in one place.
            if (isParameter == 0) {
                run.m_entities.emplace(name, text);
            } else {
                run.m_mayLeaveOut = true;
                run.m_parameterEntities.push_back(text);
            }
        });
    }
    // expat compares each declaration with all others of the element.
    static void AttributeList(void* user, const XML_Char* element, const XML_Char* /*name*/,
                              const XML_Char* /*type*/, const XML_Char* value, int /*isRequired*/) {
        Guarded(user, [&](XmlRun& run) {
            if (value != nullptr && run.m_mayLeaveOut) CheckDefault(run);
            const uint64_t most = run.m_limits[KEMD_XML_LIMIT_ATTRIBUTES];
            if (++run.m_attributeCounts[element] > most && most != 0) {
                RefuseLimit(run.m_limits, KEMD_XML_LIMIT_ATTRIBUTES);
            }
        });
    }
    static void Skipped(void* user, const XML_Char* name, int isParameter) {
        Guarded(user, [&](XmlRun& run) {
            run.m_mayLeaveOut = true;
            if (isParameter == 0) RefuseUnknown(name);
        });
    }
    // Never read: the document type goes on without it, the content cannot.
    static int External(XML_Parser parser, const XML_Char* context, const XML_Char* /*base*/,
                        const XML_Char* system, const XML_Char* /*publicId*/) {
        Guarded(XML_GetUserData(parser), [&](XmlRun& run) {
            run.m_mayLeaveOut = true;
            if (context == nullptr) return;
            throw XmlRefusal{KEMD_XML_CAUSE_ENTITY,
                             "the external entity " + std::string(system == nullptr ? "" : system) +
                                 " is not read"};
        });
        return XML_STATUS_OK;
    }
};

void XmlEvents::Register(XmlRun& run, XML_Parser parser) {
    XML_SetUserData(parser, &run);
    XML_SetElementHandler(parser, Handlers::Start, Handlers::End);
    XML_SetCharacterDataHandler(parser, Handlers::Text);
    XML_SetCdataSectionHandler(parser, Handlers::StartCdata, Handlers::EndCdata);
    XML_SetCommentHandler(parser, Handlers::Comment);
    XML_SetProcessingInstructionHandler(parser, Handlers::Instruction);
    XML_SetXmlDeclHandler(parser, Handlers::Declaration);
    XML_SetDoctypeDeclHandler(parser, Handlers::StartType, Handlers::EndType);
    XML_SetEntityDeclHandler(parser, Handlers::Entity);
    XML_SetAttlistDeclHandler(parser, Handlers::AttributeList);
    XML_SetSkippedEntityHandler(parser, Handlers::Skipped);
    XML_SetExternalEntityRefHandler(parser, Handlers::External);
    (void)XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_ALWAYS);
}
