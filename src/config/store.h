#pragma once
struct ConfigModel;
struct AnswerMessage;

// Stores the changed groups into the configuration file. -1 with the text in the answer.
[[nodiscard]] int storeConfiguration(ConfigModel& model, AnswerMessage& answer);
