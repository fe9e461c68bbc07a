#include "scan/TagFields.h"

#include <taglib/aifffile.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/speexfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/xiphcomment.h>

namespace velquin::scan {

namespace {

TagLib::String text(const std::string& value) {
    return TagLib::String(value, TagLib::String::UTF8);
}

void setTextFrame(TagLib::ID3v2::Tag& tag, const char* id, const std::string& value) {
    tag.removeFrames(id);
    // Latin-1 is valid in every ID3v2 version, and keys and numbers are plain ASCII.
    auto* frame = new TagLib::ID3v2::TextIdentificationFrame(id, TagLib::String::Latin1);
    frame->setText(text(value));
    tag.addFrame(frame);  // the tag owns its frames
}

void removeUserTextFrames(TagLib::ID3v2::Tag& tag, const std::string& description) {
    while (auto* old = TagLib::ID3v2::UserTextIdentificationFrame::find(&tag, text(description)))
        tag.removeFrame(old);
}

void setUserTextFrame(TagLib::ID3v2::Tag& tag, const std::string& description, const std::string& value) {
    removeUserTextFrames(tag, description);
    auto* frame = new TagLib::ID3v2::UserTextIdentificationFrame(TagLib::String::Latin1);
    frame->setDescription(text(description));
    frame->setText(text(value));
    tag.addFrame(frame);
}

void setId3v2(TagLib::ID3v2::Tag& tag, const TagValues& values) {
    if (values.key) {
        setTextFrame(tag, "TKEY", *values.key);
        setUserTextFrame(tag, values.otherField, *values.otherKey);
        removeUserTextFrames(tag, values.staleField);
    }
    if (values.bpm) setTextFrame(tag, "TBPM", std::to_string(*values.bpm));
}

void setXiph(TagLib::Ogg::XiphComment& comment, const TagValues& values) {
    if (values.key) {
        comment.addField("INITIALKEY", text(*values.key), true);
        comment.addField(text(values.otherField), text(*values.otherKey), true);
        comment.removeFields(text(values.staleField));
    }
    if (values.bpm) comment.addField("BPM", text(std::to_string(*values.bpm)), true);
}

void setMp4(TagLib::MP4::Tag& tag, const TagValues& values) {
    if (values.key) {
        tag.setItem("----:com.apple.iTunes:initialkey", TagLib::StringList(text(*values.key)));
        tag.setItem("----:com.apple.iTunes:" + values.otherField, TagLib::StringList(text(*values.otherKey)));
        tag.removeItem("----:com.apple.iTunes:" + values.staleField);
    }
    if (values.bpm) tag.setItem("tmpo", TagLib::MP4::Item(*values.bpm));
}

std::string firstText(const TagLib::StringList& list) {
    return list.isEmpty() ? "" : list.front().to8Bit(true);
}

bool id3v2Holds(TagLib::ID3v2::Tag& tag, const TagValues& values) {
    const auto frameText = [&](const char* id) {
        const auto& frames = tag.frameListMap()[id];
        return frames.isEmpty() ? std::string() : frames.front()->toString().to8Bit(true);
    };
    if (values.bpm && frameText("TBPM") != std::to_string(*values.bpm)) return false;
    if (!values.key) return true;
    const auto* other = TagLib::ID3v2::UserTextIdentificationFrame::find(&tag, text(values.otherField));
    return frameText("TKEY") == *values.key && other && other->fieldList().size() == 2 &&
           other->fieldList()[1].to8Bit(true) == *values.otherKey &&
           !TagLib::ID3v2::UserTextIdentificationFrame::find(&tag, text(values.staleField));
}

bool xiphHolds(TagLib::Ogg::XiphComment& comment, const TagValues& values) {
    const auto& fields = comment.fieldListMap();
    const auto field = [&](const std::string& name) {
        const auto found = fields.find(text(name));
        return found == fields.end() ? std::string() : firstText(found->second);
    };
    if (values.bpm && field("BPM") != std::to_string(*values.bpm)) return false;
    return !values.key ||
           (field("INITIALKEY") == *values.key && field(values.otherField) == *values.otherKey &&
            !comment.contains(text(values.staleField)));
}

bool mp4Holds(TagLib::MP4::Tag& tag, const TagValues& values) {
    if (values.bpm && (!tag.contains("tmpo") || tag.item("tmpo").toInt() != *values.bpm)) return false;
    const auto item = [&](const std::string& name) {
        return firstText(tag.item("----:com.apple.iTunes:" + name).toStringList());
    };
    return !values.key || (item("initialkey") == *values.key && item(values.otherField) == *values.otherKey &&
                           !tag.contains("----:com.apple.iTunes:" + values.staleField));
}

// Saving in the version the file already has keeps TagLib from converting its other frames. TagLib
// cannot write v2.2; DJ software reads v2.3 best, so that is what a v2.2 tag becomes.
TagLib::ID3v2::Version versionOf(const TagLib::ID3v2::Tag* tag, bool present) {
    return present && tag->header()->majorVersion() <= 3 ? TagLib::ID3v2::v3 : TagLib::ID3v2::v4;
}

std::optional<std::string> save(TagLib::File* file, const TagValues& values) {
    using namespace TagLib;
    if (auto* mpeg = dynamic_cast<MPEG::File*>(file)) {
        const bool present = mpeg->hasID3v2Tag();
        ID3v2::Tag* tag = mpeg->ID3v2Tag(true);
        const auto version = versionOf(tag, present);
        setId3v2(*tag, values);
        return mpeg->save(MPEG::File::ID3v2, File::StripNone, version, File::DoNotDuplicate)
                   ? std::nullopt
                   : std::optional<std::string>("TagLib could not save the file");
    }
    if (auto* wav = dynamic_cast<RIFF::WAV::File*>(file)) {
        const auto version = versionOf(wav->ID3v2Tag(), wav->hasID3v2Tag());
        setId3v2(*wav->ID3v2Tag(), values);
        if (wav->save(RIFF::WAV::File::ID3v2, File::StripNone, version)) return std::nullopt;
    } else if (auto* aiff = dynamic_cast<RIFF::AIFF::File*>(file)) {
        const auto version = versionOf(aiff->tag(), aiff->hasID3v2Tag());
        setId3v2(*aiff->tag(), values);
        if (aiff->save(version)) return std::nullopt;
    } else if (auto* flac = dynamic_cast<FLAC::File*>(file)) {
        setXiph(*flac->xiphComment(true), values);
        if (flac->save()) return std::nullopt;
    } else if (auto* comment = dynamic_cast<Ogg::XiphComment*>(file->tag())) {
        setXiph(*comment, values);  // Vorbis, Opus and FLAC in Ogg
        if (file->save()) return std::nullopt;
    } else if (auto* mp4 = dynamic_cast<MP4::File*>(file)) {
        setMp4(*mp4->tag(), values);
        if (mp4->save()) return std::nullopt;
    } else {
        return std::string("unsupported container");
    }
    return std::string("TagLib could not save the file");
}

}  // namespace

std::unique_ptr<TagLib::File> openTagFile(Container container, TagLib::IOStream* stream) {
    using namespace TagLib;
    auto* frames = ID3v2::FrameFactory::instance();
    std::unique_ptr<File> file;
    switch (container) {
        case Container::mpeg:
            file = std::make_unique<MPEG::File>(stream, frames, false);
            break;
        case Container::flac:
            file = std::make_unique<FLAC::File>(stream, frames, false);
            break;
        case Container::oggVorbis:
            file = std::make_unique<Ogg::Vorbis::File>(stream, false);
            break;
        case Container::oggOpus:
            file = std::make_unique<Ogg::Opus::File>(stream, false);
            break;
        case Container::oggFlac:
            file = std::make_unique<Ogg::FLAC::File>(stream, false);
            break;
        case Container::oggSpeex:
            file = std::make_unique<Ogg::Speex::File>(stream, false);
            break;
        case Container::wav:
            file = std::make_unique<RIFF::WAV::File>(stream, false);
            break;
        case Container::aiff:
            file = std::make_unique<RIFF::AIFF::File>(stream, false);
            break;
        case Container::mp4:
            file = std::make_unique<MP4::File>(stream, false);
            break;
        default:
            return nullptr;
    }
    if (!file->isValid()) return nullptr;
    return file;
}

bool tagsHold(TagLib::File& file, const TagValues& values) {
    using namespace TagLib;
    File* f = &file;
    if (auto* mpeg = dynamic_cast<MPEG::File*>(f))
        return mpeg->hasID3v2Tag() && id3v2Holds(*mpeg->ID3v2Tag(), values);
    if (auto* wav = dynamic_cast<RIFF::WAV::File*>(f))
        return wav->hasID3v2Tag() && id3v2Holds(*wav->ID3v2Tag(), values);
    if (auto* aiff = dynamic_cast<RIFF::AIFF::File*>(f))
        return aiff->hasID3v2Tag() && id3v2Holds(*aiff->tag(), values);
    if (auto* flac = dynamic_cast<FLAC::File*>(f))
        return flac->hasXiphComment() && xiphHolds(*flac->xiphComment(), values);
    if (auto* comment = dynamic_cast<Ogg::XiphComment*>(f->tag())) return xiphHolds(*comment, values);
    if (auto* mp4 = dynamic_cast<MP4::File*>(f)) return mp4Holds(*mp4->tag(), values);
    return false;
}

std::optional<std::string> applyTagValues(TagLib::File& file, const TagValues& values) {
    return save(&file, values);
}

}  // namespace velquin::scan
