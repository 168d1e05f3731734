// A plug-in that tracks by script: it warms up for two calls, then moves its box by (2, 1) a frame and holds every
// fifth frame with score 0. An engine "broken" fails the start. What setConfig was told stands in `property`.
#include <IAlgoPlugin.h>
#include <optrix/optrix_picture.h>

#include <class_loader/register_macro.hpp>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <rclcpp/logging.hpp>
#include <string>

namespace {

constexpr int kWarmUpCalls = 2;
constexpr int kHoldEvery = 5;

constexpr char kSchema[] = R"(
{"type":"object","properties":{
  "engine":{"type":"object","properties":{"tracker_engine_path":{"type":"string"}}},
  "learning":{"type":"object","properties":{
    "update_iterations":{"type":"integer","minimum":1,"maximum":100}}},
  "preposition":{"type":"object","properties":{"enabled":{"type":"boolean"}}},
  "jump_filter":{"type":"object","properties":{"min_score":{"type":"number"}}},
  "publication":{"type":"object","properties":{"lost_score_threshold":{"type":"number"}}},
  "reacquisition":{"type":"object","properties":{"min_score":{"type":"number"}}},
  "target":{"type":"object","properties":{"class_id":{"type":"integer"}}},
  "runtime":{"type":"object","properties":{"dead_timeout_s":{"type":"number"}}},
  "debug":{"type":"object","properties":{"enabled":{"type":"boolean"}}}}}
)";

}  // namespace

class OstrelAlgo : public IAlgoPlugin {
 public:
  std::vector<AlgoOutput> init(const Pictures& pictures, const BBox& roi, bool* ok) override {
    *ok = roi.w > 0 && roi.h > 0;
    status_ = *ok ? "init_deferred_waiting_update" : "init_fail_invalid_roi";
    phase_ = *ok ? "waiting_first_update" : "idle";
    box_ = roi;
    width_ = pictures.front()->width();
    return {};
  }

  std::vector<AlgoOutput> update(const Pictures& pictures, bool* ok) override {
    *ok = true;
    ++calls_;
    if (calls_ <= kWarmUpCalls) return warm_up();
    if (engine_is_broken()) return fail();
    phase_ = "ready";
    if (pictures.empty()) return skip("update_skip_no_frame");
    if (pictures.front()->width() < width_) return skip("update_skip_source_size_changed");
    box_.x += 2;
    box_.y += 1;
    ++tracked_;
    const bool held = tracked_ % kHoldEvery == 0;
    status_ = held ? "track_fail_hold" : "track_ok";
    return publish(held ? 0.0 : 0.75);
  }

  std::string property(std::string) override {
    const bool own = tracked_ > 0;
    const char* variable = std::getenv("OSTREL_TRACKER_ATOM_TRT_ENGINE");
    return nlohmann::json{
        {"alive", true},
        {"init_phase", phase_},
        {"runtime_status", status_},
        {"runtime_detail", ""},
        {"bbox", {box_.x, box_.y, box_.w, box_.h}},
        {"raw_bbox", {own ? box_.x + 0.25 : 0.0, own ? box_.y : 0, own ? box_.w : 0, own ? box_.h : 0}},
        {"raw_score", 0.75},
        {"told", config_},
        {"variable", variable == nullptr ? nlohmann::json(nullptr) : nlohmann::json(variable)},
        {"calls", calls_}}
        .dump();
  }

  std::vector<AlgoOutputDeclaration> getOutputDeclarations() const override {
    return {{"detection.v1", 10, 30}};
  }
  bool isAlive() override { return true; }
  std::string getName() const override { return "OstrelAlgo"; }
  std::string getUuid() override { return "1"; }
  bool isDynamic() const override { return true; }
  void changePerformance(int) override {}
  void enableDebug(bool enabled) override { debug_ = enabled; }
  std::string getConfigList() override { return kSchema; }
  void setConfig(std::string json) override { config_ = nlohmann::json::parse(json); }
  std::string getPropertyList() override { return "\n{\"title\":\"scripted\"}"; }
  void setProperty(std::string, std::string) override {}

 private:
  bool engine_is_broken() const {
    return config_.value(nlohmann::json::json_pointer("/engine/tracker_engine_path"), "") == "broken";
  }

  static AlgoOutput detections(AlgoValue::Array list) {
    return {"detection.v1", AlgoValue(AlgoValue::Object{{"detections", std::move(list)}})};
  }

  std::vector<AlgoOutput> skip(const char* word) {
    status_ = word;
    return {detections({})};
  }

  std::vector<AlgoOutput> warm_up() {
    phase_ = "warming_up";
    return skip(calls_ == 1 ? "init_warmup_started" : "update_skip_warming_up");
  }

  std::vector<AlgoOutput> fail() {
    phase_ = "failed";
    if (debug_) {
      RCLCPP_INFO(rclcpp::get_logger("OstrelAlgo"),
                  "[TRACK_FLOW][OT] init_worker_result steady_ns=1 generation=1 ok=0 status=init_async_fail "
                  "detail=initialize failed: scripted warmup_ms=1.000");
    }
    return skip("update_skip_not_initialized");
  }

  std::vector<AlgoOutput> publish(double score) {
    const auto integer = [](std::int32_t value) { return AlgoValue(std::int64_t{value}); };
    return {detections({AlgoValue(AlgoValue::Object{{"x", integer(box_.x)},
                                                    {"y", integer(box_.y)},
                                                    {"w", integer(box_.w)},
                                                    {"h", integer(box_.h)},
                                                    {"score", AlgoValue(score)}})})};
  }

  bool debug_ = false;
  int calls_ = 0;
  int tracked_ = 0;
  int width_ = 0;
  BBox box_;
  nlohmann::json config_ = nlohmann::json::object();
  std::string phase_ = "idle";
  std::string status_ = "idle";
};

CLASS_LOADER_REGISTER_CLASS(OstrelAlgo, IAlgoPlugin)
