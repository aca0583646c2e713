// ModelLoader: reads a device model from its XML file.
//
// The file format is documented, with an example of every element, in
// service/models/example-device.xml; service/models/device-model.rng describes its form for
// editors and xmllint. Every mistake in a file is refused with the file name,
// the line and a reason ("model.xml:12: unknown role 'kRoot'"), so a model with errors never
// serves anything.
#ifndef CONFIGSRVC_MODEL_LOADER_H
#define CONFIGSRVC_MODEL_LOADER_H

#include <string>

#include "DeviceModel.h"

namespace configsrvc {

// Reads and checks the model file at `path` into *model (which must be empty). On failure
// returns false with "path:line: reason" in *error.
bool loadModelFile(const std::string& path, DeviceModel* model, std::string* error);

// The same for model text already in memory; `fileName` only names it in messages.
bool parseModel(const std::string& text, const std::string& fileName, DeviceModel* model,
                std::string* error);

}  // namespace configsrvc

#endif  // CONFIGSRVC_MODEL_LOADER_H
